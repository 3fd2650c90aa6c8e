# SPDX-License-Identifier: Apache-2.0
# What the service tells systemd.
if(NOT SYSTEMD_FOUND)
    return()
endif()

vistrel_add_test(NAME system_service
    SOURCES service_test.cpp
    LIBRARIES vistrel_sandbox
    LABELS system
    PROPERTIES SKIP_RETURN_CODE ${VISTREL_SKIP_STATUS})
target_compile_definitions(test_system_service PRIVATE KOR_VISTREL="$<TARGET_FILE:kor_vistrel>")
add_dependencies(test_system_service kor_vistrel)
