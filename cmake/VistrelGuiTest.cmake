# SPDX-License-Identifier: Apache-2.0
# Tests that open windows. Each run has a private virtual display (see cmake/with-display), so they
# run in parallel and need no desktop; without Xvfb they count as skipped.
include(VistrelTest)

set(VISTREL_WITH_DISPLAY "${PROJECT_SOURCE_DIR}/cmake/with-display")

# For the whole desktop program under the address sanitizer: it has OpenGL, for which full stacks take
# too long, and GLib, whose own leaks are told from others by full stacks only. So all that GLib
# allocates is left to the tests of streams.
set(VISTREL_DESKTOP_LEAKS "${PROJECT_BINARY_DIR}/lsan-desktop.supp")
file(READ "${PROJECT_SOURCE_DIR}/cmake/lsan.supp" known)
file(WRITE "${VISTREL_DESKTOP_LEAKS}" "${known}leak:libglib-2.0.so\n")

# vistrel_add_gui_run(NAME <name> TARGET <executable target> [ARGUMENTS <args>]
#                     [ENVIRONMENT <VARIABLE=value...>] [SCREEN <WxHxD>] [WM <window manager>]
#                     [LABELS <labels>] [TIMEOUT <seconds>] [PROPERTIES <ctest properties>])
# registers one more run of a test executable under <name>, for example with another pixel density.
function(vistrel_add_gui_run)
    cmake_parse_arguments(ARG "" "NAME;TARGET;SCREEN;WM;TIMEOUT"
                          "ARGUMENTS;ENVIRONMENT;LABELS;PROPERTIES" ${ARGN})
    set(options "")
    if(ARG_SCREEN)
        list(APPEND options --screen "${ARG_SCREEN}")
    endif()
    if(ARG_WM)
        list(APPEND options --wm "${ARG_WM}")
    endif()
    if(VISTREL_SANITIZE MATCHES "address")
        # Full stacks, which cmake/lsan.supp needs elsewhere, would take software OpenGL minutes.
        list(PREPEND ARG_ENVIRONMENT "ASAN_OPTIONS=detect_stack_use_after_return=1")
    endif()
    add_test(NAME ${ARG_NAME}
             COMMAND "${VISTREL_WITH_DISPLAY}" ${options} --
                     "$<TARGET_FILE:${ARG_TARGET}>" ${ARG_ARGUMENTS})
    vistrel_test_limits(${ARG_NAME} "${ARG_TIMEOUT}" "gui;${ARG_LABELS}")
    set_tests_properties(${ARG_NAME} PROPERTIES
        SKIP_RETURN_CODE 77 ENVIRONMENT "${ARG_ENVIRONMENT}" ${ARG_PROPERTIES})
endfunction()

# vistrel_add_gui_test(NAME <name> SOURCES <files> [LIBRARIES <targets>]
#                      [any option of vistrel_add_gui_run but TARGET])
# builds the executable test_<name> and registers it with ctest under <name>.
function(vistrel_add_gui_test)
    # The options of the run end the lists of sources and libraries, wherever they stand.
    set(single SCREEN WM TIMEOUT)
    set(several ARGUMENTS ENVIRONMENT LABELS PROPERTIES)
    cmake_parse_arguments(ARG "" "NAME;${single}" "SOURCES;LIBRARIES;${several}" ${ARGN})
    set(options "")
    foreach(option IN LISTS single several)
        if(DEFINED ARG_${option})
            list(APPEND options ${option} ${ARG_${option}})
        endif()
    endforeach()
    set(target "test_${ARG_NAME}")
    add_executable(${target} ${ARG_SOURCES})
    vistrel_target(${target})
    vistrel_qt(${target})
    target_link_libraries(${target} PRIVATE Qt5::Test Qt5::Widgets ${ARG_LIBRARIES})
    if(VISTREL_SANITIZE)
        target_sources(${target} PRIVATE "${PROJECT_SOURCE_DIR}/tests/ui/keeplibraries.cpp")
    endif()
    vistrel_add_gui_run(NAME ${ARG_NAME} TARGET ${target} ${options})
endfunction()
