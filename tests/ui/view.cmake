# SPDX-License-Identifier: Apache-2.0
# Image view and preview panel, on windows of a private virtual display.
include(VistrelGuiTest)
find_package(OpenGL REQUIRED)

# The record of OpenGL calls takes their place, so it is linked into each test itself.
add_library(vistrel_view_testing OBJECT glwidget_testing.cpp glwidget_testing.h)
vistrel_target(vistrel_view_testing)
target_link_libraries(vistrel_view_testing PUBLIC vistrel_view)
set(view_libraries vistrel_view OpenGL::GL ${CMAKE_DL_LIBS})

foreach(name IN ITEMS calls geometry lifetime pixels shaders)
    vistrel_add_gui_test(NAME ui_glwidget_${name}
        SOURCES glwidget_${name}_test.cpp $<TARGET_OBJECTS:vistrel_view_testing>
        LIBRARIES ${view_libraries} TqKor::TqKor LABELS ui)
endforeach()
foreach(name IN ITEMS geometry pixels)
    vistrel_add_gui_run(NAME ui_glwidget_${name}_dense TARGET test_ui_glwidget_${name} LABELS ui
        ENVIRONMENT QT_SCALE_FACTOR=2)
endforeach()

# Qt's offscreen platform has no OpenGL without an X server, so this run has no display. Leaks are
# not looked for: Qt itself loses its context objects where no context can be made.
add_executable(test_ui_glwidget_without_gl
    glwidget_without_gl_test.cpp $<TARGET_OBJECTS:vistrel_view_testing>)
vistrel_target(test_ui_glwidget_without_gl)
vistrel_qt(test_ui_glwidget_without_gl)
target_link_libraries(test_ui_glwidget_without_gl
    PRIVATE Qt5::Test ${view_libraries} TqKor::TqKor)
add_test(NAME ui_glwidget_without_gl
    COMMAND ${CMAKE_COMMAND} -E env --unset=DISPLAY QT_QPA_PLATFORM=offscreen
            ASAN_OPTIONS=detect_leaks=0 $<TARGET_FILE:test_ui_glwidget_without_gl>)
set_tests_properties(ui_glwidget_without_gl PROPERTIES
    TIMEOUT ${VISTREL_TEST_TIMEOUT} LABELS "gui;ui")

if(TARGET sdk_fake)
    vistrel_add_gui_test(NAME ui_camerawidget
        SOURCES camerawidget_test.cpp $<TARGET_OBJECTS:vistrel_view_testing>
        LIBRARIES ${view_libraries} sdk_fake LABELS ui)
    # The form's header is the one that the panel's own target made.
    set_target_properties(test_ui_camerawidget PROPERTIES AUTOUIC OFF)
    target_include_directories(test_ui_camerawidget PRIVATE
        "$<TARGET_PROPERTY:vistrel_view,BINARY_DIR>/vistrel_view_autogen/include")
    vistrel_add_gui_run(NAME ui_camerawidget_dense TARGET test_ui_camerawidget LABELS ui
        ENVIRONMENT QT_SCALE_FACTOR=2)
endif()
