# SPDX-License-Identifier: Apache-2.0
# vistrel_add_test(NAME <name> SOURCES <files> [LIBRARIES <targets>] [LABELS <labels>]
#                  [TIMEOUT <seconds>] [PROPERTIES <ctest properties>])
# builds tests' executable test_<name> and registers it with ctest under <name>.
#
# Tests with the label "timing" judge how fast something is: they run alone, and the sanitizers'
# presets leave them out. Those with the label "cancels" end threads by force, of which the thread
# sanitizer loses track: its preset leaves them out, too.

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
    vistrel_test_limits(${ARG_NAME} "${ARG_TIMEOUT}" "${ARG_LABELS}")
    if(ARG_PROPERTIES)
        set_tests_properties(${ARG_NAME} PROPERTIES ${ARG_PROPERTIES})
    endif()
endfunction()

# vistrel_test_limits(<name> <seconds or empty> <labels>)
function(vistrel_test_limits name timeout labels)
    if(NOT timeout)
        set(timeout ${VISTREL_TEST_TIMEOUT})
    endif()
    set_tests_properties(${name} PROPERTIES TIMEOUT ${timeout} LABELS "${labels}")
    if("timing" IN_LIST labels)
        set_tests_properties(${name} PROPERTIES RUN_SERIAL ON)
    endif()
endfunction()

# vistrel_add_pytest(NAME <name> FILE <file> [UNDER <command>...] [LABELS <labels>]
#                    [ENVIRONMENT <VARIABLE=value...>] [TIMEOUT <seconds>]
#                    [PROPERTIES <ctest properties>])
# registers a file of pytest under <name>.
function(vistrel_add_pytest)
    cmake_parse_arguments(ARG "" "NAME;FILE;TIMEOUT" "UNDER;LABELS;ENVIRONMENT;PROPERTIES" ${ARGN})
    add_test(NAME ${ARG_NAME}
             COMMAND ${ARG_UNDER} pytest-3 -p no:cacheprovider -q -rs
                     "${CMAKE_CURRENT_SOURCE_DIR}/${ARG_FILE}")
    vistrel_test_limits(${ARG_NAME} "${ARG_TIMEOUT}" "${ARG_LABELS}")
    set_tests_properties(${ARG_NAME} PROPERTIES
        ENVIRONMENT "PYTHONDONTWRITEBYTECODE=1;${ARG_ENVIRONMENT}" SKIP_RETURN_CODE ${VISTREL_SKIP_STATUS} ${ARG_PROPERTIES})
endfunction()
