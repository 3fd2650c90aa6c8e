# SPDX-License-Identifier: Apache-2.0
# Main window and editor on windows of a private virtual display, sudo and systemctl stood in for.
include(VistrelGuiTest)

vistrel_add_gui_test(NAME ui_virtualcamhandler LABELS ui
    SOURCES virtualcamhandler_test.cpp LIBRARIES vistrel_ui vistrel_qtcalls TqKor::TqKor)
vistrel_add_gui_run(NAME ui_virtualcamhandler_dense TARGET test_ui_virtualcamhandler LABELS ui
    SCREEN 4000x2400x24 ENVIRONMENT QT_SCALE_FACTOR=2)
vistrel_add_gui_test(NAME ui_resolutionchooser LABELS ui
    SOURCES resolutionchooser_test.cpp LIBRARIES vistrel_ui TqKor::TqKor)
foreach(unit IN ITEMS
        mainwindow mainwindow_keyboard mainwindow_layout mainwindow_settings mainwindow_rows
        mainwindow_records mainwindow_silence)
    vistrel_add_gui_test(NAME ui_${unit} LABELS ui SCREEN 2000x1200x24
        SOURCES ${unit}_test.cpp mainwindow_testing.h
        LIBRARIES vistrel_ui vistrel_sandbox vistrel_qtcalls TqKor::TqKor)
endforeach()
foreach(unit IN ITEMS mainwindow mainwindow_layout mainwindow_rows)
    vistrel_add_gui_run(NAME ui_${unit}_dense TARGET test_ui_${unit} LABELS ui
        SCREEN 4000x2400x24 ENVIRONMENT QT_SCALE_FACTOR=2)
endforeach()
vistrel_add_gui_test(NAME ui_mainwindow_screen LABELS ui SCREEN 1024x600x24 WM openbox
    SOURCES mainwindow_screen_test.cpp mainwindow_testing.h
    LIBRARIES vistrel_ui vistrel_sandbox vistrel_qtcalls TqKor::TqKor)
foreach(density IN ITEMS 1.5=1536x900 2=2048x1200)
    string(REGEX MATCH "^(.*)=(.*)$" _ "${density}")
    vistrel_add_gui_run(NAME ui_mainwindow_screen_${CMAKE_MATCH_1} TARGET test_ui_mainwindow_screen
        LABELS ui SCREEN ${CMAKE_MATCH_2}x24 WM openbox ENVIRONMENT QT_SCALE_FACTOR=${CMAKE_MATCH_1})
endforeach()
