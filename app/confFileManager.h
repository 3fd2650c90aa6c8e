// SPDX-License-Identifier: Apache-2.0
// The operator's capture preferences, kept between runs.
#pragma once

#include <QString>
#include <string>

/// Preferences as last loaded. Those of an empty store are the values here; only the folder depends
/// on the user.
struct ArchConf {
    int width = 0;          ///< image width, pixels; 0 = none stored yet
    int height = 0;         ///< image height, pixels; 0 = none stored yet
    int fps = 30;           ///< frames per second
    int quality = 1;        ///< quality level
    int depth_max = 20000;  ///< upper limit of the depth range
    int depth_min = 0;      ///< lower limit of the depth range
    std::string save;       ///< folder for what the operator saves
    bool fw_check = false;  ///< check the firmware
    int sdk_v = 0;          ///< SDK version
    bool hdr_mode = false;  ///< capture in HDR mode
};

/// Loads and stores the capture preferences in the user's settings store. Every operation opens the
/// store afresh and has written it through when it returns. GUI thread.
class ConfFileManager {
public:
    /// Sets the names; loads nothing.
    ConfFileManager();

    /// Sets the application's name and loads every field of the record.
    /// @param applicationName name under which the store is kept
    void open(std::string applicationName);

    /// Stores the capture settings.
    /// @param width    pixels
    /// @param height   pixels
    /// @param fps      frames per second
    /// @param hdr_mode 0 = off, else on; stored as an integer although it is read as a bool
    void saveConf(int width, int height, int fps, int hdr_mode);

    /// Stores whether to check the firmware.
    void saveConfFw(bool check);

    /// Stores all fields but the width and the firmware check; mind the order of the parameters.
    void saveConf(int height, int fps, int quality, int hdr_mode, int depth_max, std::string save,
                  int depth_min, int sdk_v);

    ArchConf archConf;  ///< the preferences as last loaded

    // Names in the store. All keys but the last are in inputGroup, saveKey is in the group dirGroup
    // within it.
    QString organization;
    QString application;
    QString inputGroup;
    QString heightKey;
    QString widthKey;
    QString fpsKey;
    QString hdrModeKey;
    QString qualityKey;
    QString depthMaxKey;
    QString depthMinKey;
    QString fwCheckKey;
    QString sdkVersionKey;
    QString dirGroup;
    QString saveKey;
};
