# SPDX-License-Identifier: Apache-2.0
# TqKor::TqKor, the open camera SDK, and TqKor::Interface, its declarations alone.
include("${CMAKE_CURRENT_LIST_DIR}/TqKorTargets.cmake")
