# SPDX-License-Identifier: Apache-2.0
#[[
Finds an installed camera SDK.

Input:   TQ_KOR_ROOT    prefix under which the SDK is installed; empty: the usual places
         TQ_KOR_HEADER  the header to include, default tq_kor/tq_kor.h
Result:  TqKor_FOUND
         TqKor::Interface  include directories and the header's name, nothing to link
         TqKor::TqKor      the library
]]
set(TQ_KOR_ROOT "" CACHE PATH "Prefix under which the camera SDK is installed")
set(TQ_KOR_HEADER "tq_kor/tq_kor.h" CACHE STRING "Header of the camera SDK")

# What is found for one prefix is not kept for another, and a prefix that is named is the only one:
# a slip in it must not take another installation.
set(wanted "${TQ_KOR_ROOT}|${TQ_KOR_HEADER}")
if(DEFINED TqKor_SEARCHED AND NOT TqKor_SEARCHED STREQUAL wanted)
    unset(TqKor_INCLUDE_DIR CACHE)
    unset(TqKor_LIBRARY CACHE)
endif()
set(TqKor_SEARCHED "${wanted}" CACHE INTERNAL "Where TqKor was looked for")
set(where "")
if(TQ_KOR_ROOT)
    set(where PATHS "${TQ_KOR_ROOT}" NO_DEFAULT_PATH)
endif()
find_path(TqKor_INCLUDE_DIR "${TQ_KOR_HEADER}" ${where} PATH_SUFFIXES include)
find_library(TqKor_LIBRARY tq_kor ${where}
             PATH_SUFFIXES lib "lib/${CMAKE_LIBRARY_ARCHITECTURE}" lib64
                           lib/kor-vistrel "lib/${CMAKE_LIBRARY_ARCHITECTURE}/kor-vistrel")

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(TqKor
    REQUIRED_VARS TqKor_LIBRARY TqKor_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "set TQ_KOR_ROOT to the prefix of the camera SDK, and TQ_KOR_HEADER to the name of its header")

if(TqKor_FOUND AND NOT TARGET TqKor::Interface)
    add_library(TqKor::Interface INTERFACE IMPORTED)
    target_include_directories(TqKor::Interface INTERFACE "${TqKor_INCLUDE_DIR}")
    target_compile_definitions(TqKor::Interface INTERFACE "VISTREL_SDK_HEADER=<${TQ_KOR_HEADER}>")

    add_library(TqKor::TqKor UNKNOWN IMPORTED)
    set_target_properties(TqKor::TqKor PROPERTIES IMPORTED_LOCATION "${TqKor_LIBRARY}")
    target_link_libraries(TqKor::TqKor INTERFACE TqKor::Interface)
endif()
mark_as_advanced(TqKor_INCLUDE_DIR TqKor_LIBRARY)
