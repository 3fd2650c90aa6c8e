# SPDX-License-Identifier: Apache-2.0
# The library, and what others need to build against it: headers, CMake's and pkg-config's files.
include(CMakePackageConfigHelpers)
set(TqKorFolder "${CMAKE_INSTALL_LIBDIR}/cmake/TqKor")

install(TARGETS tq_kor tq_kor_interface EXPORT TqKorTargets
        LIBRARY DESTINATION ${VISTREL_INSTALL_SDKDIR} NAMELINK_COMPONENT development)
install(DIRECTORY rigs DESTINATION ${CMAKE_INSTALL_DATADIR}/kor-vistrel FILES_MATCHING PATTERN "*.json")

write_basic_package_version_file(TqKorConfigVersion.cmake COMPATIBILITY SameMinorVersion)
file(RELATIVE_PATH toPrefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" /)
configure_file(tq_kor.pc.in tq_kor.pc @ONLY)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT TqKorTargets NAMESPACE TqKor:: DESTINATION ${TqKorFolder} COMPONENT development)
install(FILES TqKorConfig.cmake "${CMAKE_CURRENT_BINARY_DIR}/TqKorConfigVersion.cmake"
              "${PROJECT_SOURCE_DIR}/cmake/FindTqKor.cmake"
        DESTINATION ${TqKorFolder} COMPONENT development)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tq_kor.pc"
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
