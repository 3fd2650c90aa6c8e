// SPDX-License-Identifier: Apache-2.0
// Everything a user of the camera SDK includes.
#pragma once

#include "tq_kor/camera.h"
#include "tq_kor/mat.h"
#include "tq_kor/sender.h"
#include "tq_kor/types.h"
