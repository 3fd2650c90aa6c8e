# SPDX-License-Identifier: Apache-2.0
# The live picture: image view and preview panel.
find_package(OpenGL REQUIRED)

add_library(vistrel_view STATIC
    camerawidget.cpp camerawidget.h camerawidget.ui
    glwidget.cpp glwidget.h)
vistrel_target(vistrel_view)
vistrel_qt(vistrel_view)
target_link_libraries(vistrel_view
    PUBLIC vistrel_style vistrel_capture Qt5::Widgets Qt5::OpenGL
    PRIVATE OpenGL::GL)
