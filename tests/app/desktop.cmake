# SPDX-License-Identifier: Apache-2.0
# The desktop controller on scripted cameras; each test starts itself again in the sandbox.
if(TARGET sdk_fake AND TARGET vistrel_desktop)
    include(VistrelGuiTest)
    add_library(appgui_testing STATIC appgui_testing.cpp appgui_testing.h)
    vistrel_target(appgui_testing)
    vistrel_qt(appgui_testing)
    target_link_libraries(appgui_testing PUBLIC
        vistrel_desktop vistrel_sandbox vistrel_qtcalls sdk_fake Qt5::Test)
    target_compile_definitions(appgui_testing PRIVATE RUN_IN_SANDBOX="${VISTREL_RUN_IN_SANDBOX}")
    foreach(unit IN ITEMS appgui appgui_streams appgui_saving)
        vistrel_add_gui_test(NAME app_${unit} LABELS app
            SOURCES ${unit}_test.cpp LIBRARIES appgui_testing)
    endforeach()
endif()
