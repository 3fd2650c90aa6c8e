# SPDX-License-Identifier: Apache-2.0
# Language level, warnings, sanitizers and the helper that every folder's target uses.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

find_program(VISTREL_CCACHE ccache)
if(VISTREL_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${VISTREL_CCACHE}")
endif()

set(VISTREL_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined")
option(VISTREL_WERROR "Treat warnings as errors" OFF)

add_library(vistrel_options INTERFACE)
target_compile_options(vistrel_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
    -Wformat=2 -Wnull-dereference
    # GCC 11 ignores [[maybe_unused]] on members, without which others warn, and says so.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,12>>:-Wno-attributes>
    $<$<BOOL:${VISTREL_WERROR}>:-Werror>)
if(VISTREL_SANITIZE)
    # For all targets, the SDK included: half-instrumented programs report nonsense.
    # Lightly optimised: what runs slower is more than made up for by what compiles faster.
    add_compile_options(-fsanitize=${VISTREL_SANITIZE} -fno-omit-frame-pointer -O1 -g1)
    add_link_options(-fsanitize=${VISTREL_SANITIZE})
endif()
if(VISTREL_BUILD_FUZZERS)
    # libFuzzer is told which branches an input takes.
    add_compile_options(-fsanitize=fuzzer-no-link -fno-sanitize-recover=all)
endif()

# The program's version, for what shows it.
add_library(vistrel_version INTERFACE)
target_compile_definitions(vistrel_version INTERFACE "VISTREL_VERSION=\"${PROJECT_VERSION}\"")

# vistrel_target(<target>): the settings that all targets share. Headers are included by their
# path from the repository's root.
function(vistrel_target target)
    target_link_libraries(${target} PRIVATE vistrel_options)
    target_include_directories(${target} PUBLIC "${PROJECT_SOURCE_DIR}")
endfunction()

# vistrel_qt(<target>): moc, uic and rcc for this target.
function(vistrel_qt target)
    set_target_properties(${target} PROPERTIES AUTOMOC ON AUTOUIC ON AUTORCC ON)
endfunction()
