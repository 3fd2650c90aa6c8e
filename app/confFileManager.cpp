// SPDX-License-Identifier: Apache-2.0
// The operator's capture preferences, kept between runs.
#include "app/confFileManager.h"

#include <QSettings>
#include <QStandardPaths>

namespace {

// First of the user's document folders, with the folder that the program makes its own.
QString defaultSaveFolder()
{
    return QStandardPaths::standardLocations(QStandardPaths::DocumentsLocation).value(0) +
           QStringLiteral("/KOR");
}

}  // namespace

ConfFileManager::ConfFileManager()
    : organization(QStringLiteral("Vellmark")),
      inputGroup(QStringLiteral("input")),
      heightKey(QStringLiteral("height")),
      widthKey(QStringLiteral("width")),
      fpsKey(QStringLiteral("fps")),
      hdrModeKey(QStringLiteral("hdr_mode")),
      qualityKey(QStringLiteral("quality")),
      depthMaxKey(QStringLiteral("depth_max")),
      depthMinKey(QStringLiteral("depth_min")),
      fwCheckKey(QStringLiteral("fw_check")),
      sdkVersionKey(QStringLiteral("sdk_v")),
      dirGroup(QStringLiteral("dir")),
      saveKey(QStringLiteral("save"))
{
}

void ConfFileManager::open(std::string applicationName)
{
    application = QString::fromStdString(applicationName);

    const ArchConf defaults;
    QSettings settings(organization, application);
    settings.beginGroup(inputGroup);
    archConf.width = settings.value(widthKey, defaults.width).toInt();
    archConf.height = settings.value(heightKey, defaults.height).toInt();
    archConf.fps = settings.value(fpsKey, defaults.fps).toInt();
    archConf.quality = settings.value(qualityKey, defaults.quality).toInt();
    archConf.depth_max = settings.value(depthMaxKey, defaults.depth_max).toInt();
    archConf.depth_min = settings.value(depthMinKey, defaults.depth_min).toInt();
    archConf.fw_check = settings.value(fwCheckKey, defaults.fw_check).toBool();
    archConf.sdk_v = settings.value(sdkVersionKey, defaults.sdk_v).toInt();
    // Stored as an integer, read as a bool: deliberate.
    archConf.hdr_mode = settings.value(hdrModeKey, defaults.hdr_mode).toBool();
    settings.beginGroup(dirGroup);
    archConf.save = settings.value(saveKey, defaultSaveFolder()).toString().toStdString();
    settings.endGroup();
    settings.endGroup();
}

void ConfFileManager::saveConf(int width, int height, int fps, int hdr_mode)
{
    QSettings settings(organization, application);
    settings.beginGroup(inputGroup);
    settings.setValue(heightKey, height);
    settings.setValue(widthKey, width);
    settings.setValue(fpsKey, fps);
    settings.setValue(hdrModeKey, hdr_mode);
    settings.endGroup();
}

void ConfFileManager::saveConfFw(bool check)
{
    QSettings settings(organization, application);
    settings.beginGroup(inputGroup);
    settings.setValue(fwCheckKey, check);
    settings.endGroup();
}

// Writes no width: deliberate.
void ConfFileManager::saveConf(int height, int fps, int quality, int hdr_mode, int depth_max,
                               std::string save, int depth_min, int sdk_v)
{
    QSettings settings(organization, application);
    settings.beginGroup(inputGroup);
    settings.setValue(heightKey, height);
    settings.setValue(fpsKey, fps);
    settings.setValue(qualityKey, quality);
    settings.setValue(hdrModeKey, hdr_mode);
    settings.setValue(sdkVersionKey, sdk_v);
    settings.setValue(depthMaxKey, depth_max);
    settings.setValue(depthMinKey, depth_min);
    settings.beginGroup(dirGroup);
    settings.setValue(saveKey, QString::fromStdString(save));
    settings.endGroup();
    settings.endGroup();
}
