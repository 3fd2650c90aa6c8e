# SPDX-License-Identifier: Apache-2.0
# Network sender.
find_package(PkgConfig REQUIRED)
pkg_check_modules(VISTREL_GST_STREAM REQUIRED IMPORTED_TARGET
    gstreamer-1.0>=1.20 gstreamer-app-1.0 gstreamer-video-1.0 gstreamer-rtp-1.0
    gstreamer-rtsp-server-1.0 gio-2.0)
find_path(LIBYUV_INCLUDE_DIR libyuv/convert.h REQUIRED)
find_library(LIBYUV_LIBRARY yuv REQUIRED)

target_sources(tq_kor PRIVATE
    stream/datarecords.cpp
    stream/encoders.cpp
    stream/frameconverter.cpp
    stream/packetpacer.cpp
    stream/stereomedia.cpp
    stream/streamfeed.cpp
    stream/streamsender.cpp
    stream/streamserver.cpp
    stream/udpoutput.cpp)
target_include_directories(tq_kor SYSTEM PRIVATE "${LIBYUV_INCLUDE_DIR}")
target_link_libraries(tq_kor PRIVATE PkgConfig::VISTREL_GST_STREAM "${LIBYUV_LIBRARY}")
