# SPDX-License-Identifier: Apache-2.0
vistrel_add_test(NAME conffilemanager
    SOURCES conffilemanagertest.cpp
    LIBRARIES vistrel_settings
    LABELS app)
