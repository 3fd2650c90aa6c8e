# SPDX-License-Identifier: Apache-2.0
# Colours, fonts and style sheets.
add_library(vistrel_style STATIC
    colors.h
    style.cpp style.h
    stylesheets.cpp stylesheets.h)
vistrel_target(vistrel_style)
vistrel_qt(vistrel_style)
target_link_libraries(vistrel_style PUBLIC Qt5::Widgets vistrel_resources)
