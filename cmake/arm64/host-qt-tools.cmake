# SPDX-License-Identifier: Apache-2.0
# Qt's code generators run on this machine, so they are this machine's. Read right after project():
# the targets must exist before Qt's package defines those of the sysroot.
foreach(tool IN ITEMS moc uic rcc)
    find_program(VISTREL_HOST_${tool} ${tool} PATHS /usr/lib/qt5/bin NO_DEFAULT_PATH REQUIRED)
    if(NOT TARGET Qt5::${tool})
        add_executable(Qt5::${tool} IMPORTED GLOBAL)
        set_target_properties(Qt5::${tool} PROPERTIES
            IMPORTED_LOCATION "${VISTREL_HOST_${tool}}")
    endif()
endforeach()
