# SPDX-License-Identifier: Apache-2.0
# The desktop controller on scripted cameras; the test starts itself again in the sandbox.
if(TARGET sdk_fake AND TARGET vistrel_desktop)
    include(VistrelGuiTest)
    vistrel_add_gui_test(NAME app_desktop LABELS app
        SOURCES appgui_test.cpp LIBRARIES vistrel_desktop vistrel_sandbox sdk_fake)
    target_compile_definitions(test_app_desktop PRIVATE
        RUN_IN_SANDBOX="${VISTREL_RUN_IN_SANDBOX}")
endif()
