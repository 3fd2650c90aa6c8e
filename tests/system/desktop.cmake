# SPDX-License-Identifier: Apache-2.0
# The desktop program, operated through the display as a person does it.
if(NOT TARGET vistrel_desktop)
    return()
endif()
include(VistrelGuiTest)
find_package(Qt5 5.15 REQUIRED COMPONENTS Network)

# Everything in it is waited for, so under a sanitizer it takes longer and judges the same.
set(limit 400)
if(VISTREL_SANITIZE)
    set(limit 3000)
endif()
vistrel_add_gui_test(NAME system_desktop
    SCREEN 1600x1000x24 WM openbox LABELS system TIMEOUT ${limit}
    ENVIRONMENT "LSAN_OPTIONS=suppressions=${VISTREL_DESKTOP_LEAKS}:print_suppressions=0"
    SOURCES desktop_test.cpp remotewindow.cpp remotewindow.h
    LIBRARIES vistrel_ui vistrel_sandbox Qt5::Network TqKor::TqKor)
target_compile_definitions(test_system_desktop PRIVATE KOR_VISTREL="$<TARGET_FILE:kor_vistrel>")
add_dependencies(test_system_desktop kor_vistrel)

# For scripts/screenshots.
add_executable(vistrel_screenshots EXCLUDE_FROM_ALL screenshots.cpp)
vistrel_target(vistrel_screenshots)
target_link_libraries(vistrel_screenshots PRIVATE
    vistrel_desktop Qt5::Test Qt5::Network TqKor::TqKor)
