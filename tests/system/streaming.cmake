# SPDX-License-Identifier: Apache-2.0
# The headless program on the open SDK, seen from the network.
find_package(PkgConfig REQUIRED)
find_package(PNG REQUIRED)
find_package(Qt5 5.15 REQUIRED COMPONENTS Gui Network)
pkg_check_modules(GSTREAMER_CLIENT REQUIRED IMPORTED_TARGET
    gstreamer-1.0 gstreamer-app-1.0 gstreamer-video-1.0)

vistrel_add_test(NAME system_streaming
    SOURCES streaming_test.cpp headlessservice.h streamclient.cpp streamclient.h
    LIBRARIES vistrel_sandbox Qt5::Gui Qt5::Network PNG::PNG PkgConfig::GSTREAMER_CLIENT
    LABELS system
    TIMEOUT 600
    PROPERTIES RUN_SERIAL ON SKIP_RETURN_CODE ${VISTREL_SKIP_STATUS})
target_compile_definitions(test_system_streaming PRIVATE
    KOR_VISTREL="$<TARGET_FILE:kor_vistrel>"
    VISTREL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
add_dependencies(test_system_streaming kor_vistrel)

vistrel_add_test(NAME system_roundtrip
    SOURCES roundtrip_test.cpp headlessservice.h
    LIBRARIES vistrel_sandbox Qt5::Network tq_kor_core tq_kor_objects
    LABELS system
    PROPERTIES SKIP_RETURN_CODE ${VISTREL_SKIP_STATUS})
target_compile_definitions(test_system_roundtrip PRIVATE
    KOR_VISTREL="$<TARGET_FILE:kor_vistrel>"
    VISTREL_RECEIVE="$<TARGET_FILE:vistrel-receive>")
add_dependencies(test_system_roundtrip kor_vistrel vistrel-receive)
