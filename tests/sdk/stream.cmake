# SPDX-License-Identifier: Apache-2.0
# Tests of the network sender.
find_package(PkgConfig REQUIRED)
pkg_check_modules(VISTREL_TEST_GST REQUIRED IMPORTED_TARGET
    gstreamer-1.0 gstreamer-app-1.0 gstreamer-video-1.0 gstreamer-rtsp-server-1.0)

foreach(name IN ITEMS open wire clients load)
    vistrel_add_test(NAME sdk_stream_${name} SOURCES stream_${name}.cpp stream_testing.h
        LIBRARIES tq_kor_core tq_kor_objects Threads::Threads PkgConfig::VISTREL_TEST_GST
        LABELS sdk stream)
    target_compile_definitions(test_sdk_stream_${name} PRIVATE
        VISTREL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
endforeach()

# The conversion of colours, and the library that does it, which the test asks what it uses.
vistrel_add_test(NAME sdk_simd SOURCES simd_test.cpp
    LIBRARIES tq_kor_core tq_kor_objects PkgConfig::VISTREL_TEST_GST "${LIBYUV_LIBRARY}" LABELS sdk)
target_include_directories(test_sdk_simd PRIVATE "${LIBYUV_INCLUDE_DIR}")
