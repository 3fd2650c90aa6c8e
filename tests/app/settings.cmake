# SPDX-License-Identifier: Apache-2.0
vistrel_add_test(NAME app_settings
    SOURCES settings_test.cpp
    LIBRARIES vistrel_settings
    LABELS app)
