// SPDX-License-Identifier: Apache-2.0
// The file of virtual cameras and the store of preferences.
#include <exception>

#include "app/confFileManager.h"
#include "app/virtualcameraconfig.h"
#include "tests/fuzz/fuzz.h"

namespace {

bool equal(const VirtualCameraInfos& a, const VirtualCameraInfos& b)
{
    return a.virtualSerialNumber == b.virtualSerialNumber &&
           a.leftSerialNumber == b.leftSerialNumber && a.rightSerialNumber == b.rightSerialNumber &&
           a.port == b.port && a.fps == b.fps && a.width == b.width && a.height == b.height &&
           a.imu == b.imu && a.hdr == b.hdr;
}

// What was read once is written so that it reads as the same.
void readCameras(const fuzz::Folder& folder, std::string_view contents)
{
    QList<VirtualCameraInfos> records;
    try {
        records = readVirtualCameraConfig(QString::fromStdString(folder.write("set", contents)));
    } catch (const std::exception&) {
        return;
    }
    for (const VirtualCameraInfos& record : records) {
        // Larger numbers do not survive: deliberate.
        if ((record.virtualSerialNumber | record.leftSerialNumber | record.rightSerialNumber |
             record.port) > 0x7FFFFFFF) {
            return;
        }
    }
    const std::string stored = serializeVirtualCameraConfig(records);
    const QList<VirtualCameraInfos> again =
        readVirtualCameraConfig(QString::fromStdString(folder.write("set", stored)));
    fuzz::require(serializeVirtualCameraConfig(again) == stored, "a set is written as it was read");
    for (const VirtualCameraInfos& record : again) {
        bool known = false;
        for (const VirtualCameraInfos& one : records) {
            known = known || equal(one, record);
        }
        fuzz::require(known, "a camera is read as it was written");
    }
}

void readPreferences(const fuzz::Folder& folder, std::string_view contents)
{
    // Qt keeps what it read of a file whose size and time are the same.
    static int number = 0;
    const std::string application = "fuzz" + std::to_string(++number % 64);
    const std::string path = folder.write("Vellmark/" + application + ".conf", contents);
    ConfFileManager preferences;
    preferences.open(application);
    preferences.saveConfFw(true);
    ConfFileManager again;
    again.open(application);
    fuzz::require(again.archConf.fw_check, "a preference is stored");
    std::filesystem::remove(path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static const fuzz::Folder folder;
    setenv("XDG_CONFIG_HOME", folder.path.c_str(), 1);
    const std::string_view text = fuzz::text(bytes, size);
    readCameras(folder, text);
    // The store is slow, and what begins as the other file is nothing to it.
    if (text.substr(0, 1) != "{") {
        readPreferences(folder, text);
    }
    return 0;
}
