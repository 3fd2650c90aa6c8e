// SPDX-License-Identifier: Apache-2.0
// Reads and writes the set of virtual cameras.
#include "app/virtualcameraconfig.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

// Serial numbers are read through a signed 32-bit int and widened with its sign, so numbers above
// 2147483647 do not survive a write and read cycle. Deliberate.
std::uint64_t widen(std::int32_t serial)
{
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(serial));
}

// An absent key reads as null, so that it fails with the type that was wanted.
const nlohmann::json& field(const nlohmann::json& object, const char* key)
{
    static const nlohmann::json absent;
    const auto found = object.find(key);
    return found != object.end() ? *found : absent;
}

}  // namespace

VirtualCameraInfos parseConfig(const nlohmann::json::const_iterator& member)
{
    const nlohmann::json& value = member.value();
    VirtualCameraInfos record;
    // Names that are no number give 0.
    record.virtualSerialNumber =
        widen(static_cast<std::int32_t>(std::strtol(member.key().c_str(), nullptr, 10)));
    record.leftSerialNumber = widen(field(value, "Left").get<std::int32_t>());
    record.rightSerialNumber = widen(field(value, "Right").get<std::int32_t>());
    record.port = static_cast<std::uint32_t>(field(value, "Port").get<std::int32_t>());
    record.fps = field(value, "FPS").get<std::int32_t>();
    record.width = field(value, "Width").get<std::int32_t>();
    record.height = field(value, "Height").get<std::int32_t>();
    record.imu = field(value, "IMU").get<bool>();
    if (value.contains("HDR")) {
        record.hdr = value.at("HDR").get<std::int32_t>();
    }
    return record;
}

// Errors of the JSON library are not caught, here or by the callers: they end the process with
// their text, which names the place. Deliberate.
QList<VirtualCameraInfos> readVirtualCameraConfig(const QString& path)
{
    std::ifstream file(path.toStdString());
    const nlohmann::json document = nlohmann::json::parse(file);
    QList<VirtualCameraInfos> records;
    for (auto member = document.cbegin(); member != document.cend(); ++member) {
        records.append(parseConfig(member));
    }
    return records;
}

std::string serializeVirtualCameraConfig(const QList<VirtualCameraInfos>& records)
{
    nlohmann::json document = nlohmann::json::object();
    for (const VirtualCameraInfos& record : records) {
        nlohmann::json& member = document[std::to_string(record.virtualSerialNumber)];
        member["Left"] = record.leftSerialNumber;
        member["Right"] = record.rightSerialNumber;
        member["IMU"] = record.imu;
        member["Width"] = record.width;
        member["Height"] = record.height;
        member["FPS"] = record.fps;
        member["Port"] = record.port;
        member["HDR"] = record.hdr;
    }
    return document.dump();
}
