// SPDX-License-Identifier: Apache-2.0
// Costs of the image path beside one memcpy of the same bytes, and the allocations it makes, with
// the sender left out.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "capture/Streamer.h"
#include "capture/framepool.h"
#include "capture/sdk.h"
#include "capture/sidebyside.h"
#include "tests/support/allocations.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1200;
constexpr std::size_t kEyeBytes = std::size_t{kWidth} * kHeight * sdk::kYuyvBytesPerPixel;
// Enough different frames that none is still cached when its turn comes again.
constexpr std::size_t kFrames = 16;

using Bytes = std::vector<unsigned char>;

/// The joined image, aligned like the one that goes to the sender.
class JoinedImage {
public:
    JoinedImage() { image.alloc(2 * kWidth, kHeight, sdk::kYuyv, sdk::kHostMemory); }
    unsigned char* data() const { return image.getPtr<unsigned char>(sdk::kHostMemory); }
    std::size_t size() const { return 2 * kEyeBytes; }

private:
    tq::Mat image;
};

std::vector<Bytes> makeFrames(std::size_t bytes)
{
    std::vector<Bytes> frames(kFrames, Bytes(bytes));
    unsigned char value = 1;
    for (Bytes& frame : frames) {
        std::generate(frame.begin(), frame.end(),
                      [&value] { return value = static_cast<unsigned char>(value * 5 + 3); });
    }
    return frames;
}

std::vector<tq::Mat> makeEyes()
{
    std::vector<tq::Mat> eyes(kFrames);
    for (tq::Mat& eye : eyes) {
        eye.alloc(kWidth, kHeight, sdk::kYuyv, sdk::kHostMemory);
        std::memset(eye.getPtr<unsigned char>(sdk::kHostMemory), 0x5a, kEyeBytes);
    }
    return eyes;
}

/// Reports allocations per iteration between construction and report().
class AllocationCounter {
public:
    AllocationCounter() : before(allocations::ofThisThread()) {}
    void report(benchmark::State& state) const
    {
        state.counters["allocs_per_frame"] =
            static_cast<double>(allocations::ofThisThread() - before) /
            static_cast<double>(state.iterations());
    }

private:
    std::uint64_t before;
};

/// The physical limit: one memcpy of a joined frame's bytes.
void memcpyStereoFrame(benchmark::State& state)
{
    const std::vector<Bytes> frames = makeFrames(2 * kEyeBytes);
    const JoinedImage out;
    std::size_t next = 0;
    for (auto _ : state) {
        std::memcpy(out.data(), frames[next].data(), out.size());
        benchmark::ClobberMemory();
        next = (next + 1) % kFrames;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * out.size()));
}

void joinStereoFrame(benchmark::State& state)
{
    const std::vector<tq::Mat> left = makeEyes();
    const std::vector<tq::Mat> right = makeEyes();
    const JoinedImage out;
    std::size_t next = 0;
    const AllocationCounter counter;
    for (auto _ : state) {
        joinSideBySide(left[next], right[next], kWidth, kHeight, out.data());
        benchmark::ClobberMemory();
        next = (next + 1) % kFrames;
    }
    counter.report(state);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * out.size()));
}

/// A streamer whose thread does nothing, so that the benchmark itself takes the frames out.
class SteppedStreamer : public VirtualCameraStreamer {
public:
    SteppedStreamer()
    {
        VirtualCameraInfos infos;
        infos.width = kWidth;
        infos.height = kHeight;
        infos.fps = 30;
        open(infos);
    }
    // A thread that starts late must still find this class's run().
    ~SteppedStreamer() override { wait(); }

    void run() override {}
};

/// All that a stereo frame goes through before the sender: the copy out of the SDK into a
/// buffer, the deep copy into the streamer's queue, the search for the pair and the join.
void captureCopyAndJoin(benchmark::State& state)
{
    const std::vector<Bytes> captured = makeFrames(kEyeBytes);
    FramePool pools[2] = {{kWidth, kHeight}, {kWidth, kHeight}};
    SteppedStreamer streamer;
    tq::Mat joined;
    joined.alloc(2 * kWidth, kHeight, sdk::kYuyv, sdk::kHostMemory);
    tq::Timestamp now = 0;
    std::size_t next = 0;
    const auto capture = [&](FramePool& pool) {
        tq::Mat* const buffer = pool.take();
        std::memcpy(buffer->getPtr<unsigned char>(sdk::kHostMemory), captured[next].data(),
                    kEyeBytes);
        sdk::setCaptureTime(*buffer, now);
        next = (next + 1) % kFrames;
        return buffer;
    };
    const auto frame = [&] {
        now += 33'333'333;
        tq::Mat* const left = capture(pools[0]);
        streamer.ingestLeftImage(1, *left, {}, {});
        pools[0].giveBack(left);
        tq::Mat* const right = capture(pools[1]);
        streamer.ingestRightImage(2, *right, {}, {});
        pools[1].giveBack(right);
        tq::Timestamp sent = 0;
        const bool paired = streamer.createSBS(joined, sent) == 0 && sent == now;
        benchmark::ClobberMemory();
        return paired;
    };
    frame();  // the first frame fills the pools
    const AllocationCounter counter;
    for (auto _ : state) {
        if (!frame()) {
            state.SkipWithError("a pair was not found");
            break;
        }
    }
    counter.report(state);
}

BENCHMARK(memcpyStereoFrame)->Unit(benchmark::kMicrosecond);
BENCHMARK(joinStereoFrame)->Unit(benchmark::kMicrosecond);
BENCHMARK(captureCopyAndJoin)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
