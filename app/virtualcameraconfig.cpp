// SPDX-License-Identifier: Apache-2.0
// Reads and writes the set of virtual cameras.
#include "app/virtualcameraconfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDebug>
#include <QFile>
#include <QSaveFile>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

constexpr qint64 kMaxFileBytes = 16'000'000;
constexpr char kDelete = '\x7f';

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

// The library's conversion cuts floating-point numbers towards zero, whatever becomes of those that
// are too large.
std::int32_t integer(const nlohmann::json& object, const char* key)
{
    const nlohmann::json& value = field(object, key);
    const double number = value.is_number_float() ? value.get<double>() : 0;
    if (number <= -2147483649.0 || number >= 2147483648.0) {
        throw std::out_of_range(std::string("the number of ") + key + " does not fit 32 bits");
    }
    return value.get<std::int32_t>();
}

/// Why an open file is no configuration; empty when it may be one.
QString unfitness(int file)
{
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) {
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return QStringLiteral("it is no regular file");
    }
    return status.st_size > kMaxFileBytes ? QStringLiteral("it is larger than 16 MB") : QString();
}

/// The file's text. Empty, which is no JSON, when it cannot be one: nothing is waited for, and
/// nothing without end is read.
std::string readText(const QString& path)
{
    const int handle =
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const QString reason = unfitness(handle);
    if (!reason.isEmpty()) {
        qWarning() << "[KORVistrel] The configuration cannot be read:" << reason;
        ::close(handle);
        return {};
    }
    QFile file;
    file.open(handle, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
    return file.read(kMaxFileBytes).toStdString();
}

/// Parses the text. The library's errors quote it: without what a terminal takes for commands,
/// which may be other characters than those that the library itself shows as numbers.
nlohmann::json parseText(const std::string& text)
{
    nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded()) {
        std::string plain = text;
        std::replace_if(
            plain.begin(), plain.end(),
            [](char byte) { return byte == kDelete || static_cast<signed char>(byte) < 0; }, '?');
        const nlohmann::json harmless = nlohmann::json::parse(plain);  // throws nearly always
        return nlohmann::json::parse(text);                            // throws
    }
    return document;
}

}  // namespace

VirtualCameraInfos parseConfig(const nlohmann::json::const_iterator& member)
{
    const nlohmann::json& value = member.value();
    VirtualCameraInfos record;
    // Names that are no number give 0.
    record.virtualSerialNumber =
        widen(static_cast<std::int32_t>(std::strtol(member.key().c_str(), nullptr, 10)));
    record.leftSerialNumber = widen(integer(value, "Left"));
    record.rightSerialNumber = widen(integer(value, "Right"));
    record.port = static_cast<std::uint32_t>(integer(value, "Port"));
    record.fps = integer(value, "FPS");
    record.width = integer(value, "Width");
    record.height = integer(value, "Height");
    record.imu = field(value, "IMU").get<bool>();
    if (value.contains("HDR")) {
        record.hdr = integer(value, "HDR");
    }
    return record;
}

// Errors of the JSON library are not caught, here or by the callers: they end the process with
// their text, which names the place. Deliberate.
QList<VirtualCameraInfos> readVirtualCameraConfig(const QString& path)
{
    const nlohmann::json document = parseText(readText(path));
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

// Replaces the file as a whole, so that no end of the program leaves a part of it.
QString writeVirtualCameraConfig(const QString& path, const QList<VirtualCameraInfos>& records)
{
    QSaveFile file(path);
    file.setDirectWriteFallback(true);  // in a folder that only an administrator may write to
    const QByteArray text = QByteArray::fromStdString(serializeVirtualCameraConfig(records)) + '\n';
    // Committing does not look whether the last of the text could be written.
    const bool written = file.open(QIODevice::WriteOnly) && file.write(text) == text.size() &&
                         file.flush() && file.commit();
    return written ? QString() : file.errorString();
}
