# SPDX-License-Identifier: Apache-2.0
# Network sender. libyuv is found with the camera sources.
pkg_check_modules(TQ_KOR_STREAM REQUIRED IMPORTED_TARGET
    gstreamer-1.0>=1.20 gstreamer-app-1.0 gstreamer-video-1.0 gstreamer-rtp-1.0
    gstreamer-rtsp-server-1.0 gio-2.0)

target_sources(tq_kor PRIVATE
    stream/datarecords.cpp
    stream/encoders.cpp
    stream/frameconverter.cpp
    stream/packetforwarder.cpp
    stream/stereomedia.cpp
    stream/streamfeed.cpp
    stream/streamsender.cpp
    stream/streamserver.cpp
    stream/udpoutput.cpp)
target_link_libraries(tq_kor PRIVATE PkgConfig::TQ_KOR_STREAM)
