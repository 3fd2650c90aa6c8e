# SPDX-License-Identifier: Apache-2.0
# Main window and the editor of virtual cameras.
add_library(vistrel_ui STATIC
    mainwindow.cpp mainwindow.h mainwindow.ui
    statusline.cpp statusline.h
    virtualcamhandler.cpp virtualcamhandler.h virtualcamhandler.ui)
vistrel_target(vistrel_ui)
vistrel_qt(vistrel_ui)
target_link_libraries(vistrel_ui PUBLIC
    vistrel_view vistrel_style vistrel_capture vistrel_commands Qt5::Widgets)
