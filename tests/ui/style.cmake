# SPDX-License-Identifier: Apache-2.0
# Colours, fonts, style sheets and compiled-in files; no display needed. The resolution is fixed so
# that sizes mean the same everywhere.
foreach(name IN ITEMS style stylecolors styleresources)
    vistrel_add_test(NAME ${name} SOURCES ${name}test.cpp LIBRARIES vistrel_style LABELS ui)
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_FONT_DPI=96;ASAN_OPTIONS=fast_unwind_on_malloc=0")
endforeach()
