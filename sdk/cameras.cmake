# SPDX-License-Identifier: Apache-2.0
# Rig, camera sources, IMU and grabber.
target_sources(tq_kor PRIVATE
    core/log.cpp
    rig/rig.cpp)
target_link_libraries(tq_kor PRIVATE nlohmann_json::nlohmann_json)
