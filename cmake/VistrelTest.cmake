# SPDX-License-Identifier: Apache-2.0
# vistrel_add_test(NAME <name> SOURCES <files> [LIBRARIES <targets>] [LABELS <labels>]
#                  [TIMEOUT <seconds>] [PROPERTIES <ctest properties>])
# builds tests' executable test_<name> and registers it with ctest under <name>.
#
# Tests with the label "timing" depend on the speed of what they test; the sanitizers' presets leave
# them out.

# Seconds after which a test that names no limit of its own hangs, on slow machines, too.
set(VISTREL_TEST_TIMEOUT 300)
if(VISTREL_SANITIZE)
    set(VISTREL_TEST_TIMEOUT 1000)
endif()

function(vistrel_add_test)
    cmake_parse_arguments(ARG "" "NAME;TIMEOUT" "SOURCES;LIBRARIES;LABELS;PROPERTIES" ${ARGN})
    set(target "test_${ARG_NAME}")
    add_executable(${target} ${ARG_SOURCES})
    vistrel_target(${target})
    vistrel_qt(${target})
    target_link_libraries(${target} PRIVATE Qt5::Test ${ARG_LIBRARIES})
    add_test(NAME ${ARG_NAME} COMMAND ${target})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT ${VISTREL_TEST_TIMEOUT})
    endif()
    set_tests_properties(${ARG_NAME} PROPERTIES
        TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}" ${ARG_PROPERTIES})
endfunction()
