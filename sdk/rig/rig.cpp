// SPDX-License-Identifier: Apache-2.0
// Strict reader of the rig: anything that is not understood is refused.
#include "sdk/rig/rig.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace tq::rig {

namespace {

using nlohmann::json;

constexpr const char* kInstalledRig = "/usr/local/kor/settings/rig.json";
constexpr std::uintmax_t kLargestFile = 1u << 20;
constexpr std::size_t kMostCameras = 64;

/// Why a rig is refused; never leaves this file.
class Refusal : public std::runtime_error {
public:
    Refusal(const std::string& key, const std::string& reason)
        : std::runtime_error((key.empty() ? "document" : key) + ": " + reason)
    {
    }
};

std::string quoted(const std::string& text)
{
    // As JSON text, so that control characters and broken UTF-8 cannot spoil the log line.
    return json(text).dump(-1, ' ', true, json::error_handler_t::replace);
}

template <typename T>
std::string number(T value)
{
    std::ostringstream text;
    text.precision(12);
    text << value;
    return text.str();
}

/// The members of one JSON object; remembers which were asked for.
class Members {
public:
    Members(const json& object, std::string objectPath) : value(object), path(std::move(objectPath))
    {
        if (!value.is_object()) {
            throw Refusal(path, std::string("must be an object, but is ") + value.type_name());
        }
    }

    std::string key(const std::string& name) const
    {
        return path.empty() ? name : path + "." + name;
    }

    /// The member, or null when it is absent.
    const json* find(const std::string& name)
    {
        known.insert(name);
        const auto found = value.find(name);
        return found == value.end() ? nullptr : &*found;
    }

    const json& require(const std::string& name)
    {
        const json* member = find(name);
        if (member == nullptr) {
            throw Refusal(key(name), "is missing");
        }
        return *member;
    }

    std::string text(const std::string& name, const std::string& fallback)
    {
        const json* member = find(name);
        return member == nullptr ? fallback : asText(*member, name);
    }

    std::string requireText(const std::string& name) { return asText(require(name), name); }

    int integer(const std::string& name, int fallback, int least, int most)
    {
        const json* member = find(name);
        return member == nullptr ? fallback : asInteger(*member, name, least, most);
    }

    int requireInteger(const std::string& name, int least, int most)
    {
        return asInteger(require(name), name, least, most);
    }

    double real(const std::string& name, double fallback, double least, double most)
    {
        const json* member = find(name);
        return member == nullptr ? fallback : asReal(*member, name, least, most);
    }

    double requireReal(const std::string& name, double least, double most)
    {
        return asReal(require(name), name, least, most);
    }

    /// One of a list of words; its position in the list.
    std::size_t word(const std::string& name, const std::string& given,
                     const std::vector<std::string>& words) const
    {
        const auto found = std::find(words.begin(), words.end(), given);
        if (found == words.end()) {
            std::string list;
            for (const std::string& allowed : words) {
                list += (list.empty() ? "" : ", ") + quoted(allowed);
            }
            throw Refusal(key(name), "unknown value " + quoted(given) + ", must be one of " + list);
        }
        return static_cast<std::size_t>(found - words.begin());
    }

    /// Refuses members that nobody asked for.
    void finish() const
    {
        for (const auto& member : value.items()) {
            if (known.count(member.key()) == 0) {
                const std::string shown = quoted(member.key());
                throw Refusal(key(shown.substr(1, shown.size() - 2)), "unknown key");
            }
        }
    }

private:
    std::string asText(const json& member, const std::string& name) const
    {
        if (!member.is_string()) {
            throw Refusal(key(name), std::string("must be a string, but is ") + member.type_name());
        }
        auto text = member.get<std::string>();
        if (text.find('\0') != std::string::npos) {
            throw Refusal(key(name), "contains a zero character");
        }
        return text;
    }

    int asInteger(const json& member, const std::string& name, int least, int most) const
    {
        if (!member.is_number_integer()) {
            throw Refusal(key(name), member.is_number() ? "must be a whole number"
                                                        : std::string("must be a number, but is ") +
                                                              member.type_name());
        }
        const bool tooLarge = member.is_number_unsigned() &&
                              member.get<std::uint64_t>() > static_cast<std::uint64_t>(most);
        if (tooLarge || member.get<std::int64_t>() < least || member.get<std::int64_t>() > most) {
            throw Refusal(key(name), "must be from " + number(least) + " to " + number(most));
        }
        return member.get<int>();
    }

    double asReal(const json& member, const std::string& name, double least, double most) const
    {
        if (!member.is_number()) {
            throw Refusal(key(name), std::string("must be a number, but is ") + member.type_name());
        }
        const auto given = member.get<double>();
        if (!(given >= least && given <= most)) {
            throw Refusal(key(name), "must be from " + number(least) + " to " + number(most));
        }
        return given;
    }

    const json& value;
    std::string path;
    std::set<std::string> known;
};

constexpr double kDay = 86400;

Stall readStall(const json& value, const std::string& path)
{
    Members members(value, path);
    Stall stall;
    stall.at = members.requireReal("at", 0, kDay);
    stall.duration = members.requireReal("for", 0, kDay);
    members.finish();
    return stall;
}

SimulatedSettings readSimulated(Members& members)
{
    SimulatedSettings settings;
    settings.eye = members.word("eye", members.text("eye", "left"), {"left", "right"}) == 0
                       ? Eye::LEFT
                       : Eye::RIGHT;
    settings.phase = members.real("phase", settings.phase, -1e6, 1e6);
    settings.jitter = members.real("jitter", settings.jitter, 0, 1e6);
    settings.drift = members.real("drift", settings.drift, -1000, 1000);
    settings.drop = members.real("drop", settings.drop, 0, 1);
    if (const json* stall = members.find("stall")) {
        settings.stall = readStall(*stall, members.key("stall"));
    }
    if (members.find("deathAfter") != nullptr) {
        settings.deathAfter = members.requireReal("deathAfter", 0, kDay);
    }
    settings.seed = static_cast<std::uint64_t>(
        members.integer("seed", 1, 0, std::numeric_limits<std::int32_t>::max()));
    return settings;
}

std::string absolutePath(const std::string& given, const std::filesystem::path& folder)
{
    return std::filesystem::absolute(folder / given).lexically_normal().string();
}

RecordingSettings readRecording(Members& members, const std::filesystem::path& folder)
{
    RecordingSettings settings;
    const std::string path = members.requireText("path");
    if (path.empty()) {
        throw Refusal(members.key("path"), "is empty");
    }
    settings.path = absolutePath(path, folder);
    settings.camera = members.text("camera", settings.camera);
    const bool plain = !settings.camera.empty() && settings.camera.front() != '.' &&
                       settings.camera.find('/') == std::string::npos;
    if (!plain) {
        throw Refusal(members.key("camera"), "must be the name of a folder of the recording");
    }
    return settings;
}

GStreamerSettings readGStreamer(Members& members)
{
    GStreamerSettings settings;
    settings.pipeline = members.requireText("pipeline");
    if (settings.pipeline.find_first_not_of(" \t\n") == std::string::npos) {
        throw Refusal(members.key("pipeline"), "is empty");
    }
    settings.timeout = members.real("timeout", settings.timeout, 0.1, 600);
    return settings;
}

SourceSettings readSource(const json& value, const std::string& path,
                          const std::filesystem::path& folder)
{
    Members members(value, path);
    const std::string type = members.requireText("type");
    SourceSettings source;
    switch (members.word("type", type, {"simulated", "recording", "gstreamer"})) {
        case 0: source = readSimulated(members); break;
        case 1: source = readRecording(members, folder); break;
        default: source = readGStreamer(members); break;
    }
    members.finish();
    return source;
}

ImuSettings readImu(const json& value, const std::string& path, const SourceSettings& source)
{
    Members members(value, path);
    ImuSettings imu;
    switch (members.word("type", members.requireText("type"), {"none", "simulated", "recorded"})) {
        case 0: imu.kind = ImuKind::NONE; break;
        case 1:
            imu.kind = ImuKind::SIMULATED;
            imu.rate = members.integer("rate", imu.rate, 1, 2000);
            break;
        default: imu.kind = ImuKind::RECORDED; break;
    }
    if (imu.kind == ImuKind::RECORDED && !std::holds_alternative<RecordingSettings>(source)) {
        throw Refusal(members.key("type"), "\"recorded\" needs a source of type \"recording\"");
    }
    members.finish();
    return imu;
}

MODEL readModel(Members& members)
{
    constexpr std::array<MODEL, 4> kModels{MODEL::KOR_TSOLO_GS, MODEL::KOR_TSOLO_UHD, MODEL::KOR_T,
                                           MODEL::KOR_T_MINI};
    std::vector<std::string> names;
    names.reserve(kModels.size());
    for (const MODEL& model : kModels) {
        names.emplace_back(toString(model).c_str());
    }
    return kModels[members.word("model", members.requireText("model"), names)];
}

// Users of the library tell the mono cameras' families apart by the first two digits.
void checkSerial(int serial, MODEL model, const std::string& key)
{
    const bool mono = model == MODEL::KOR_TSOLO_GS || model == MODEL::KOR_TSOLO_UHD;
    const std::string prefix = number(static_cast<int>(model));
    if (mono && number(serial).substr(0, 2) != prefix) {
        throw Refusal(key, "the serial of a \"" + std::string(toString(model).c_str()) +
                               "\" begins with " + prefix);
    }
}

std::string readShortText(Members& members, const std::string& name, const std::string& fallback,
                          std::size_t most)
{
    std::string text = members.text(name, fallback);
    if (text.size() > most) {
        throw Refusal(members.key(name), "must not be longer than " + number(most) + " bytes");
    }
    return text;
}

CameraSettings readCamera(const json& value, std::size_t index, const std::filesystem::path& folder)
{
    constexpr int kLargest = std::numeric_limits<std::int32_t>::max();
    Members members(value, "cameras[" + number(index) + "]");
    CameraSettings camera;
    camera.id = members.integer("id", static_cast<int>(index), 0, kLargest);
    camera.serial = members.requireInteger("serial", 1, kLargest);
    camera.model = readModel(members);
    checkSerial(camera.serial, camera.model, members.key("serial"));
    camera.bus = readShortText(members, "bus", "gmsl-" + number(index), 15);
    camera.name = readShortText(members, "name", toString(camera.model).c_str(), 111);
    camera.source = readSource(members.require("source"), members.key("source"), folder);
    if (const json* imu = members.find("imu")) {
        camera.imu = readImu(*imu, members.key("imu"), camera.source);
    }
    members.finish();
    return camera;
}

void checkUnique(const std::vector<CameraSettings>& cameras)
{
    std::set<int> ids;
    std::set<int> serials;
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        const std::string path = "cameras[" + number(i) + "]";
        if (!serials.insert(cameras[i].serial).second) {
            throw Refusal(path + ".serial", "serial " + number(cameras[i].serial) + " is repeated");
        }
        if (!ids.insert(cameras[i].id).second) {
            throw Refusal(path + ".id", "id " + number(cameras[i].id) + " is repeated");
        }
    }
}

std::vector<CameraSettings> readCameras(const json& value, const std::filesystem::path& folder)
{
    if (!value.is_array()) {
        throw Refusal("cameras", std::string("must be an array, but is ") + value.type_name());
    }
    if (value.size() > kMostCameras) {
        throw Refusal("cameras", "must not have more than " + number(kMostCameras) + " elements");
    }
    std::vector<CameraSettings> cameras;
    for (const json& camera : value) {
        cameras.push_back(readCamera(camera, cameras.size(), folder));
    }
    checkUnique(cameras);
    return cameras;
}

StreamSettings readStream(const json& value)
{
    Members members(value, "stream");
    StreamSettings stream;
    stream.bindAddress = members.text("bindAddress", stream.bindAddress);
    if (stream.bindAddress.empty()) {
        throw Refusal(members.key("bindAddress"), "is empty");
    }
    stream.user = members.text("user", stream.user);
    stream.password = members.text("password", stream.password);
    if (stream.user.empty() != stream.password.empty()) {
        throw Refusal(members.key(stream.user.empty() ? "user" : "password"),
                      "user and password belong together");
    }
    stream.maxClients = members.integer("maxClients", stream.maxClients, 1, 1000);
    stream.sessionTimeout = members.integer("sessionTimeout", stream.sessionTimeout, 5, 3600);
    constexpr std::array<CodecChoice, 3> kCodecs{CodecChoice::AUTO, CodecChoice::H264,
                                                 CodecChoice::H265};
    stream.codec =
        kCodecs[members.word("codec", members.text("codec", "auto"), {"auto", "h264", "h265"})];
    stream.encoder = members.text("encoder", stream.encoder);
    stream.bitrate = members.integer("bitrate", stream.bitrate, 0, 1000000);
    stream.keyFrameInterval = members.integer("keyFrameInterval", 0, 0, 10000);
    stream.mtu = members.integer("mtu", stream.mtu, 576, 65000);
    stream.latency = members.integer("latency", stream.latency, 0, 10000);
    members.finish();
    return stream;
}

std::string position(const std::string& text, std::size_t byte)
{
    const std::size_t end = std::min(byte == 0 ? 0 : byte - 1, text.size());
    const std::string before = text.substr(0, end);
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const std::size_t lineStart =
        before.rfind('\n') == std::string::npos ? 0 : before.rfind('\n') + 1;
    return "line " + number(line) + ", column " + number(end - lineStart + 1);
}

json readDocument(const std::string& text)
{
    // The parser keeps the last of several equal keys; here they are a mistake.
    std::vector<std::set<std::string>> open;
    const json::parser_callback_t refuseRepeatedKeys = [&open](int, json::parse_event_t event,
                                                               json& parsed) {
        if (event == json::parse_event_t::object_start) {
            open.emplace_back();
        } else if (event == json::parse_event_t::object_end) {
            open.pop_back();
        } else if (event == json::parse_event_t::key &&
                   !open.back().insert(parsed.get<std::string>()).second) {
            throw Refusal("", "key " + quoted(parsed.get<std::string>()) + " is repeated");
        }
        return true;
    };
    try {
        return json::parse(text, refuseRepeatedKeys);
    } catch (const json::parse_error& error) {
        throw Refusal("", "not valid JSON at " + position(text, error.byte));
    } catch (const json::exception&) {
        throw Refusal("", "not valid JSON");
    }
}

RigResult refused(const std::string& origin, const std::string& reason)
{
    RigResult result;
    result.error = origin + ": " + reason;
    return result;
}

}  // namespace

const CameraSettings* Rig::find(int id) const
{
    const auto found = std::find_if(cameras.begin(), cameras.end(),
                                    [id](const CameraSettings& camera) { return camera.id == id; });
    return found == cameras.end() ? nullptr : &*found;
}

RigResult parseRig(const std::string& text, const std::string& origin)
{
    try {
        const json document = readDocument(text);
        Members members(document, "");
        Rig rig;
        rig.origin = origin;
        rig.cameras =
            readCameras(members.require("cameras"), std::filesystem::path(origin).parent_path());
        if (const json* stream = members.find("stream")) {
            rig.stream = readStream(*stream);
        }
        members.finish();
        RigResult result;
        result.rig = std::move(rig);
        return result;
    } catch (const Refusal& refusal) {
        return refused(origin, refusal.what());
    } catch (const std::exception& error) {
        return refused(origin, std::string("document: ") + error.what());
    }
}

RigResult readRig(const std::string& path)
{
    std::error_code failure;
    if (std::filesystem::is_directory(path, failure)) {
        return refused(path, "document: is a folder");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return refused(path, std::string("document: cannot be read: ") + std::strerror(errno));
    }
    std::string text(kLargestFile + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad()) {
        return refused(path, "document: cannot be read");
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kLargestFile) {
        return refused(path, "document: larger than 1 MiB");
    }
    return parseRig(text, path);
}

Rig builtInRig()
{
    Rig rig;
    rig.origin = "built-in rig";
    for (int i = 0; i < 2; ++i) {
        CameraSettings camera;
        camera.id = i;
        camera.serial = 30123456 + i;
        camera.model = MODEL::KOR_TSOLO_GS;
        camera.bus = "gmsl-" + number(i);
        camera.name = toString(camera.model).c_str();
        SimulatedSettings source;
        source.eye = i == 0 ? Eye::LEFT : Eye::RIGHT;
        camera.source = source;
        camera.imu.kind = ImuKind::SIMULATED;
        rig.cameras.push_back(camera);
    }
    return rig;
}

RigResult loadRig()
{
    const char* named = std::getenv("KOR_RIG");
    if (named != nullptr && *named != '\0') {
        return readRig(named);
    }
    std::error_code failure;
    if (std::filesystem::exists(kInstalledRig, failure)) {
        return readRig(kInstalledRig);
    }
    RigResult result;
    result.rig = builtInRig();
    return result;
}

}  // namespace tq::rig
