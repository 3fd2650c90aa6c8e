// SPDX-License-Identifier: Apache-2.0
// A session that was recorded from a stream, as a camera plays it. Its pictures are not decoded:
// that would try decoders that are not ours.
#include <stdexcept>
#include <vector>

#include "sdk/sources/recording.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static const fuzz::Folder folder;
    try {
        const tq::Recording recording(
            {folder.write("session.ts", fuzz::text(bytes, size)), "cam0", true}, 0);
        fuzz::require(recording.framesPerSecond() > 0, "time passes");
        const std::size_t count = recording.frames().size();
        for (std::size_t i = 0; i < 2 * count; ++i) {
            fuzz::require(recording.firstAfter(recording.playedFrame(i)) == i + 1,
                          "each frame is played before the next one");
        }
        const std::vector<tq::IMUPacket> packets = recording.readImu();
        const tq::Timestamp again = recording.playedFrame(count);
        std::vector<tq::IMUPacket> played;
        recording.playImu(packets, again, again + recording.round(), played);
        fuzz::require(!played.empty() && played.size() == packets.size(),
                      "a round has each packet once");
    } catch (const std::runtime_error&) {
        return 0;
    }
    return 0;
}
