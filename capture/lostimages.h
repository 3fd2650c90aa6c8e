// SPDX-License-Identifier: Apache-2.0
// A line in the log for each image that is lost, for those who ask for it.
#pragma once

#include <QLoggingCategory>

/// Off unless QT_LOGGING_RULES has "vistrel.images.debug=true".
Q_DECLARE_LOGGING_CATEGORY(lostImages)
