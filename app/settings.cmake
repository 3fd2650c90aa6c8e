# SPDX-License-Identifier: Apache-2.0
# The operator's capture preferences.
add_library(vistrel_settings STATIC confFileManager.cpp confFileManager.h)
vistrel_target(vistrel_settings)
target_link_libraries(vistrel_settings PUBLIC Qt5::Core)
