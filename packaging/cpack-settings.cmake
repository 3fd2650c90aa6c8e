# SPDX-License-Identifier: Apache-2.0
# Read by CPack: which program finds the libraries' packages.
if(CPACK_VISTREL_SYSROOT)
    # Those of the system that was built for, not of this one.
    set(ENV{VISTREL_SYSROOT} "${CPACK_VISTREL_SYSROOT}")
endif()
set(SHLIBDEPS_EXECUTABLE "${CPACK_VISTREL_SHLIBDEPS}")
