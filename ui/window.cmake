# SPDX-License-Identifier: Apache-2.0
# Main window and the editor of virtual cameras.
add_library(vistrel_ui STATIC
    drawbudget.cpp drawbudget.h
    previewqueue.cpp previewqueue.h
    footline.cpp footline.h
    mainwindow.cpp mainwindow.h mainwindow.ui
    virtualcamhandler.cpp virtualcamhandler.h virtualcamhandler.ui
    waitnotice.cpp waitnotice.h)
vistrel_target(vistrel_ui)
vistrel_qt(vistrel_ui)
target_link_libraries(vistrel_ui PUBLIC
    vistrel_view vistrel_style vistrel_capture vistrel_commands Qt5::Widgets)
