# SPDX-License-Identifier: Apache-2.0
# Main window and editor on windows of a private virtual display, sudo and systemctl stood in for.
include(VistrelGuiTest)

vistrel_add_gui_test(NAME virtualcamhandler LABELS ui
    SOURCES virtualcamhandler_test.cpp LIBRARIES vistrel_ui TqKor::TqKor)
vistrel_add_gui_run(NAME virtualcamhandler_dense TARGET test_virtualcamhandler LABELS ui
    SCREEN 4000x2400x24 ENVIRONMENT QT_SCALE_FACTOR=2)
vistrel_add_gui_test(NAME mainwindow LABELS ui SCREEN 2000x1200x24
    SOURCES mainwindow_test.cpp LIBRARIES vistrel_ui vistrel_sandbox TqKor::TqKor)
vistrel_add_gui_run(NAME mainwindow_dense TARGET test_mainwindow LABELS ui
    SCREEN 4000x2400x24 ENVIRONMENT QT_SCALE_FACTOR=2)
# It measures time, so it runs alone.
vistrel_add_gui_test(NAME mainwindow_overload LABELS ui timing PROPERTIES RUN_SERIAL ON
    SOURCES mainwindow_overload_test.cpp LIBRARIES vistrel_ui vistrel_sandbox TqKor::TqKor)
