# SPDX-License-Identifier: Apache-2.0
# Rig, camera sources, IMU and grabber.
find_package(PkgConfig REQUIRED)
find_package(PNG REQUIRED)
pkg_check_modules(TQ_KOR_CAPTURE REQUIRED IMPORTED_TARGET
    gstreamer-1.0>=1.20 gstreamer-app-1.0 gstreamer-video-1.0)
# Debian's libyuv has no pkg-config file.
find_path(LIBYUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(LIBYUV_LIBRARY yuv REQUIRED)
mark_as_advanced(LIBYUV_INCLUDE_DIR LIBYUV_LIBRARY)

target_sources(tq_kor PRIVATE
    camera/cameralock.cpp
    camera/grabber.cpp
    camera/provider.cpp
    core/clock.cpp
    core/log.cpp
    imu/imuhistory.cpp
    imu/imusource.cpp
    imu/simulatedimu.cpp
    rig/rig.cpp
    sources/framesource.cpp
    sources/gridsource.cpp
    sources/gstreamersource.cpp
    sources/picture.cpp
    sources/recording.cpp
    sources/recordingsource.cpp
    sources/scene.cpp
    sources/simulatedsource.cpp)
target_include_directories(tq_kor PRIVATE "${LIBYUV_INCLUDE_DIR}")
target_link_libraries(tq_kor PRIVATE
    nlohmann_json::nlohmann_json PNG::PNG PkgConfig::TQ_KOR_CAPTURE "${LIBYUV_LIBRARY}")

install(DIRECTORY rigs DESTINATION ${CMAKE_INSTALL_DATADIR}/kor-vistrel FILES_MATCHING PATTERN "*.json")
