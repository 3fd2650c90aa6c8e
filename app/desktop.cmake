# SPDX-License-Identifier: Apache-2.0
# Controller of the desktop mode.
add_library(vistrel_desktop STATIC AppGUI.cpp AppGUI.h)
vistrel_target(vistrel_desktop)
vistrel_qt(vistrel_desktop)
target_link_libraries(vistrel_desktop PUBLIC vistrel_ui vistrel_app vistrel_settings)
