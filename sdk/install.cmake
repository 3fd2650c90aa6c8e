# SPDX-License-Identifier: Apache-2.0
# The library, and what others need to build against it: headers, CMake's and pkg-config's files.
install(TARGETS tq_kor tq_kor_interface EXPORT TqKorTargets
        LIBRARY DESTINATION ${VISTREL_INSTALL_SDKDIR} NAMELINK_COMPONENT development)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(DIRECTORY rigs DESTINATION ${CMAKE_INSTALL_DATADIR}/kor-vistrel FILES_MATCHING PATTERN "*.json")
