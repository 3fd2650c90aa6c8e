// SPDX-License-Identifier: Apache-2.0
// What may stand in a rig, and where a rig is looked for.
#include "sdk/rig/rig.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <set>
#include <utility>

#include "sdk/core/readfile.h"
#include "sdk/rig/jsonreader.h"

namespace tq::rig {

namespace {

constexpr const char* kBuiltInRig = R"({"cameras": [
    {"serial": 30123456, "model": "KOR T Solo GS",
     "source": {"type": "simulated", "eye": "left"}, "imu": {"type": "simulated"}},
    {"serial": 30123457, "model": "KOR T Solo GS",
     "source": {"type": "simulated", "eye": "right"}, "imu": {"type": "simulated"}}
]})";
constexpr std::size_t kLargestFile = 1u << 20;
constexpr std::size_t kMostCameras = 64;

constexpr double kDay = 86400;
constexpr int kLargest = std::numeric_limits<std::int32_t>::max();

Stall readStall(const json& value, const std::string& path)
{
    Members members(value, path);
    Stall stall;
    stall.at = members.real("at", 0, kDay);
    stall.duration = members.real("for", 0, kDay);
    members.finish();
    return stall;
}

SimulatedSettings readSimulated(Members& members)
{
    SimulatedSettings settings;
    settings.eye = members.word<Eye>("eye", {{"left", Eye::LEFT}, {"right", Eye::RIGHT}}, "left");
    settings.scene = members.word<SceneKind>(
        "scene", {{"discs", SceneKind::DISCS}, {"chessboard", SceneKind::CHESSBOARD}}, "discs");
    settings.phase = members.real("phase", -1e6, 1e6, settings.phase);
    settings.jitter = members.real("jitter", 0, 1e6, settings.jitter);
    settings.drift = members.real("drift", -1000, 1000, settings.drift);
    settings.drop = members.real("drop", 0, 1, settings.drop);
    if (const json* stall = members.find("stall")) {
        settings.stall = readStall(*stall, members.key("stall"));
    }
    if (members.find("deathAfter") != nullptr) {
        settings.deathAfter = members.real("deathAfter", 0, kDay);
    }
    if (members.find("reviveAfter") != nullptr) {
        if (!settings.deathAfter) {
            throw Refusal(members.key("reviveAfter"), "needs deathAfter");
        }
        settings.reviveAfter = members.real("reviveAfter", 0, kDay);
    }
    settings.seed = static_cast<std::uint64_t>(members.integer("seed", 0, kLargest, 1));
    return settings;
}

std::string absolutePath(const std::string& given, const std::filesystem::path& folder)
{
    return std::filesystem::absolute(folder / given).lexically_normal().string();
}

RecordingSettings readRecording(Members& members, const std::filesystem::path& folder)
{
    RecordingSettings settings;
    const std::string path = members.text("path");
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
    settings.loop = members.truth("loop", settings.loop);
    return settings;
}

GStreamerSettings readGStreamer(Members& members)
{
    GStreamerSettings settings;
    settings.pipeline = members.text("pipeline");
    if (settings.pipeline.find_first_not_of(" \t\n") == std::string::npos) {
        throw Refusal(members.key("pipeline"), "is empty");
    }
    settings.timeout = members.real("timeout", 0.1, 600, settings.timeout);
    return settings;
}

void readSource(const json& value, const std::string& path, const std::filesystem::path& folder,
                CameraSettings& camera)
{
    Members members(value, path);
    using Reader = std::function<SourceSettings()>;
    const auto read =
        members.word<Reader>("type", {{"simulated", [&] { return readSimulated(members); }},
                                      {"recording", [&] { return readRecording(members, folder); }},
                                      {"gstreamer", [&] { return readGStreamer(members); }}});
    camera.source = read();
    camera.timestamps = members.word<Timestamps>(
        "timestamps", {{"capture", Timestamps::CAPTURE}, {"grid", Timestamps::GRID}}, "capture");
    members.finish();
}

ImuSettings readImu(const json& value, const std::string& path, const SourceSettings& source)
{
    Members members(value, path);
    ImuSettings imu;
    imu.kind = members.word<ImuKind>("type", {{"none", ImuKind::NONE},
                                              {"simulated", ImuKind::SIMULATED},
                                              {"recorded", ImuKind::RECORDED}});
    if (imu.kind == ImuKind::SIMULATED) {
        imu.rate = members.integer("rate", 1, 2000, imu.rate);
    }
    if (imu.kind == ImuKind::RECORDED && !std::holds_alternative<RecordingSettings>(source)) {
        throw Refusal(members.key("type"), "\"recorded\" needs a source of type \"recording\"");
    }
    members.finish();
    return imu;
}

MODEL readModel(Members& members)
{
    std::vector<std::pair<std::string, MODEL>> names;
    for (const MODEL model :
         {MODEL::KOR_TSOLO_GS, MODEL::KOR_TSOLO_UHD, MODEL::KOR_T, MODEL::KOR_T_MINI}) {
        names.emplace_back(toString(model).c_str(), model);
    }
    return members.word<MODEL>("model", names);
}

// Users of the library tell the mono cameras' families apart by the first two digits.
void checkSerial(int serial, MODEL model, const std::string& key)
{
    const bool mono = model == MODEL::KOR_TSOLO_GS || model == MODEL::KOR_TSOLO_UHD;
    const std::string prefix = std::to_string(static_cast<int>(model));
    if (mono && std::to_string(serial).substr(0, 2) != prefix) {
        throw Refusal(key, "the serial of a \"" + std::string(toString(model).c_str()) +
                               "\" begins with " + prefix);
    }
}

std::string readShortText(Members& members, const std::string& name, const std::string& fallback,
                          std::size_t most)
{
    std::string text = members.text(name, fallback);
    if (text.size() > most) {
        throw Refusal(members.key(name),
                      "must not be longer than " + std::to_string(most) + " bytes");
    }
    return text;
}

CameraSettings readCamera(const json& value, std::size_t index, const std::filesystem::path& folder)
{
    Members members(value, "cameras[" + std::to_string(index) + "]");
    CameraSettings camera;
    camera.id = members.integer("id", 0, kLargest, static_cast<int>(index));
    camera.serial = members.integer("serial", 1, kLargest);
    camera.model = readModel(members);
    checkSerial(camera.serial, camera.model, members.key("serial"));
    camera.bus = readShortText(members, "bus", "gmsl-" + std::to_string(index), 15);
    camera.name = readShortText(members, "name", toString(camera.model).c_str(), 111);
    readSource(members.require("source"), members.key("source"), folder, camera);
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
        const std::string path = "cameras[" + std::to_string(i) + "]";
        if (!serials.insert(cameras[i].serial).second) {
            throw Refusal(path + ".serial",
                          "serial " + std::to_string(cameras[i].serial) + " is repeated");
        }
        if (!ids.insert(cameras[i].id).second) {
            throw Refusal(path + ".id", "id " + std::to_string(cameras[i].id) + " is repeated");
        }
    }
}

std::vector<CameraSettings> readCameras(const json& value, const std::filesystem::path& folder)
{
    if (!value.is_array()) {
        throw Refusal("cameras", std::string("must be an array, but is ") + value.type_name());
    }
    if (value.size() > kMostCameras) {
        throw Refusal("cameras",
                      "must not have more than " + std::to_string(kMostCameras) + " elements");
    }
    std::vector<CameraSettings> cameras;
    for (const json& camera : value) {
        cameras.push_back(readCamera(camera, cameras.size(), folder));
    }
    checkUnique(cameras);
    return cameras;
}

// What the files hold is looked at when a stream is opened: they are renewed now and then.
void readEncryption(Members& members, const std::filesystem::path& folder, StreamSettings& stream)
{
    if (members.find("certificate") == nullptr && members.find("key") == nullptr) {
        return;
    }
    const auto readPath = [&](const char* name) {
        const std::string path = members.text(name);
        if (path.empty()) {
            throw Refusal(members.key(name), "is empty");
        }
        return absolutePath(path, folder);
    };
    stream.certificate = readPath("certificate");
    stream.key = readPath("key");
}

// A name would have to be looked up, and could mean several addresses.
bool isNumericAddress(const std::string& text)
{
    in6_addr parsed = {};  // large enough for either
    return inet_pton(AF_INET, text.c_str(), &parsed) == 1 ||
           inet_pton(AF_INET6, text.c_str(), &parsed) == 1;
}

StreamSettings readStream(const json& value, const std::filesystem::path& folder)
{
    Members members(value, "stream");
    StreamSettings stream;
    stream.bindAddress = members.text("bindAddress", stream.bindAddress);
    if (!isNumericAddress(stream.bindAddress)) {
        throw Refusal(members.key("bindAddress"), "must be a numeric IPv4 or IPv6 address");
    }
    stream.user = members.text("user", stream.user);
    stream.password = members.text("password", stream.password);
    if (stream.user.empty() != stream.password.empty()) {
        throw Refusal(members.key(stream.user.empty() ? "user" : "password"),
                      "user and password belong together");
    }
    readEncryption(members, folder, stream);
    stream.maxClients = members.integer("maxClients", 1, 1000, stream.maxClients);
    stream.maxPerAddress = members.integer("maxPerAddress", 0, 1000, stream.maxPerAddress);
    stream.sessionTimeout = members.integer("sessionTimeout", 5, 3600, stream.sessionTimeout);
    stream.codec = members.word<CodecChoice>(
        "codec",
        {{"auto", CodecChoice::AUTO}, {"h264", CodecChoice::H264}, {"h265", CodecChoice::H265}},
        "auto");
    stream.encoder = members.text("encoder", stream.encoder);
    stream.bitrate = members.integer("bitrate", 0, 1000000, stream.bitrate);
    stream.keyFrameInterval = members.integer("keyFrameInterval", 0, 10000, 0);
    stream.mtu = members.integer("mtu", 576, 65000, stream.mtu);
    stream.latency = members.integer("latency", 0, 10000, stream.latency);
    members.finish();
    return stream;
}

/// Whether there is no such file. One that cannot be looked at, or to which a link is broken, is
/// not absent: the built-in rig would take its place, which has no password.
bool isAbsent(const std::filesystem::path& file)
{
    std::error_code failure;
    if (std::filesystem::status(file, failure).type() != std::filesystem::file_type::not_found) {
        return false;
    }
    for (std::filesystem::path part = file; part.has_relative_path(); part = part.parent_path()) {
        if (std::filesystem::is_symlink(part, failure) && !std::filesystem::exists(part, failure)) {
            return false;
        }
    }
    return true;
}

RigResult refused(const std::string& origin, const std::string& reason)
{
    return {std::nullopt, origin + ": " + reason, "", ""};
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
        const std::filesystem::path folder = std::filesystem::path(origin).parent_path();
        rig.cameras = readCameras(members.require("cameras"), folder);
        if (const json* stream = members.find("stream")) {
            rig.stream = readStream(*stream, folder);
        }
        members.finish();
        return {std::move(rig), "", "", ""};
    } catch (const Refusal& refusal) {
        return refused(origin, refusal.what());
    } catch (const std::exception& error) {
        return refused(origin, std::string("document: ") + error.what());
    }
}

RigResult readRig(const std::string& path)
{
    const FileContents file = readRegularFile(path, kLargestFile);
    RigResult result =
        file ? parseRig(*file.bytes, path) : refused(path, "document: " + file.error);
    result.file = path;
    if (result && file.readableByAll && !result.rig->stream.password.empty()) {
        result.warning = path + ": stream.password: " + everybodyReads(path);
    }
    return result;
}

RigResult loadRig(const std::string& installed)
{
    const char* named = std::getenv("KOR_RIG");
    if (named != nullptr && *named != '\0') {
        return readRig(named);
    }
    return isAbsent(installed) ? parseRig(kBuiltInRig, "built-in rig") : readRig(installed);
}

}  // namespace tq::rig
