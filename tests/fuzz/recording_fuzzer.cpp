// SPDX-License-Identifier: Apache-2.0
// A recording: its lists, or one of its pictures when the input begins as those do.
#include "sdk/sources/recording.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "sdk/sources/framesource.h"
#include "sdk/sources/picture.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr std::string_view kPngBegin = "\x89PNG";

void readPicture(const std::string& path)
{
    try {
        const tq::Picture picture = tq::readPng(path);
        const auto pixels =
            static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height);
        fuzz::require(picture.luma.size() == pixels, "a picture has its pixels");
        std::vector<std::uint8_t> yuyv(std::size_t{64} * 48 * 2);
        tq::PictureScaler(64, 48).scale(picture, yuyv.data());
    } catch (const tq::InvalidVideo&) {
        return;
    }
}

void readLists(const std::string& folder)
{
    try {
        const tq::Recording recording({folder, "cam0", true}, 0);
        fuzz::require(recording.framesPerSecond() > 0 && recording.round() > 0, "time passes");
        for (std::size_t i = 1; i < recording.frames().size(); ++i) {
            fuzz::require(recording.frames()[i].time > recording.frames()[i - 1].time,
                          "frames are in order");
        }
        fuzz::require(!recording.readImu().empty(), "there are packets");
    } catch (const std::runtime_error&) {
        return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static const fuzz::Folder folder;
    const std::string_view text = fuzz::text(bytes, size);
    if (text.substr(0, kPngBegin.size()) == kPngBegin) {
        readPicture(folder.write("picture.png", text));
        return 0;
    }
    // The two lists, a line with a single "=" between them.
    const std::size_t end = std::min(text.find("\n=\n"), text.size());
    folder.write("cam0/data.csv", text.substr(0, end));
    folder.write("imu0/data.csv", text.substr(std::min(end + 3, text.size())));
    readLists(folder.path.string());
    return 0;
}
