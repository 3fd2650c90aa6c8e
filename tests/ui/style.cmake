# SPDX-License-Identifier: Apache-2.0
# Colours, fonts, style sheets and compiled-in files; no display needed. The resolution is fixed so
# that sizes mean the same everywhere.
add_library(vistrel_style_testing OBJECT stylesheets_testing.cpp stylesheets_testing.h)
vistrel_target(vistrel_style_testing)
target_link_libraries(vistrel_style_testing PUBLIC vistrel_style Qt5::Test)

foreach(name IN ITEMS colors resources style stylesheets stylesheets_contrast stylesheets_looks)
    vistrel_add_test(NAME ui_${name}
        SOURCES ${name}_test.cpp $<TARGET_OBJECTS:vistrel_style_testing>
        LIBRARIES vistrel_style ${CMAKE_DL_LIBS} LABELS ui)
    set_tests_properties(ui_${name} PROPERTIES
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_FONT_DPI=96;ASAN_OPTIONS=fast_unwind_on_malloc=0")
endforeach()
