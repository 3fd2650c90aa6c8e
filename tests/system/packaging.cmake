# SPDX-License-Identifier: Apache-2.0
# The parts of the package that need no system of their own. tests/system/container/run has the rest.
set(packaging "${PROJECT_SOURCE_DIR}/packaging")

add_test(NAME system_service_step
    COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/service-step-test" "${packaging}/service/service-step")
set_tests_properties(system_service_step PROPERTIES TIMEOUT ${VISTREL_TEST_TIMEOUT} LABELS system)

add_test(NAME system_sudoers
    COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/sudoers-test" "${packaging}/service/kor-vistrel.sudoers")
set_tests_properties(system_sudoers PROPERTIES
    LABELS system SKIP_RETURN_CODE ${VISTREL_SKIP_STATUS})

add_test(NAME system_postinst
    COMMAND "${CMAKE_CURRENT_SOURCE_DIR}/postinst-test" "${packaging}/debian/postinst")
set_tests_properties(system_postinst PROPERTIES TIMEOUT ${VISTREL_TEST_TIMEOUT} LABELS system)
