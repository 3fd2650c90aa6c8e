# SPDX-License-Identifier: Apache-2.0
# The run modes of the program.
vistrel_add_test(NAME system_program
    SOURCES program_test.cpp
    LIBRARIES vistrel_sandbox
    LABELS system
    PROPERTIES SKIP_RETURN_CODE ${VISTREL_SKIP_STATUS})
target_compile_definitions(test_system_program PRIVATE
    KOR_VISTREL="$<TARGET_FILE:kor_vistrel>"
    $<$<TARGET_EXISTS:vistrel_desktop>:VISTREL_DESKTOP>)
add_dependencies(test_system_program kor_vistrel)
