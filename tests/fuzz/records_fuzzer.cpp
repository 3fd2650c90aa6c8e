// SPDX-License-Identifier: Apache-2.0
// The data stream as vistrel-receive reads it: packets, units, records, counts.
#include <glib.h>

#include <algorithm>

#include "sdk/stream/recordreader.h"
#include "tests/fuzz/fuzz.h"
#include "tools/receive/options.h"
#include "tools/receive/statistics.h"

namespace {

constexpr int kElapsed = 1;  // s

void checkText(std::string_view bytes)
{
    const std::string shown = receive::printable(receive::withoutCredentials(std::string(bytes)));
    fuzz::require(g_utf8_validate(shown.data(), static_cast<gssize>(shown.size()), nullptr),
                  "what is shown is UTF-8");
    fuzz::require(std::none_of(shown.begin(), shown.end(),
                               [](char c) { return g_ascii_iscntrl(c) != FALSE; }),
                  "what is shown has no control characters");
}

}  // namespace

// A packet is a byte of flags, a byte of its length and the payload.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    checkText(fuzz::text(bytes, size));
    tq::wire::UnitCollector units;
    receive::Statistics counts;
    tq::wire::RecordHandler handler;
    std::uint16_t sequence = 0;
    std::uint64_t now = 1700000000000000000u;
    handler.frame = [&](const tq::wire::FrameRecord& record) {
        counts.frameRecord(record, sequence, kElapsed);
        counts.finishedFrame(sequence, now);
    };
    handler.imu = [&](const tq::wire::ImuRecord& record) { counts.imuRecord(record, kElapsed); };
    while (size >= 2) {
        const std::uint8_t flags = bytes[0];
        const std::size_t length = std::min<std::size_t>(bytes[1], size - 2);
        sequence = static_cast<std::uint16_t>(sequence + 1 + (flags & 2));
        if (const auto* const unit = units.add(sequence, (flags & 1) != 0, bytes + 2, length)) {
            tq::wire::readRecords(unit->data(), unit->size(), handler);
        }
        now += 33000000;
        bytes += 2 + length;
        size -= 2 + length;
    }
    fuzz::require(counts.framesLost.lost <= 1000 * (kElapsed + 1), "losses are not absurd");
    fuzz::require(counts.imuPacketsLost.lost <= 10000 * (kElapsed + 1), "losses are not absurd");
    checkText(counts.statusLine(1));
    return 0;
}
