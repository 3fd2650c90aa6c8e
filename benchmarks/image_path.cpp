// SPDX-License-Identifier: Apache-2.0
// Costs of the image path beside one memcpy of the same bytes, and the allocations it makes.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "capture/FrameRing.h"
#include "capture/sdk.h"
#include "capture/sidebyside.h"

namespace {

std::atomic<std::uint64_t> allocations{0};

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
    AllocationCounter() : before(allocations.load()) {}
    void report(benchmark::State& state) const
    {
        state.counters["allocs_per_frame"] = static_cast<double>(allocations.load() - before) /
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

/// All that a stereo frame goes through before the sender: the copy out of the SDK into a ring
/// buffer, the deep copy on arrival and the join, both eyes.
void captureCopyAndJoin(benchmark::State& state)
{
    const std::vector<Bytes> captured = makeFrames(kEyeBytes);
    FrameRing rings[2] = {{kWidth, kHeight, 30}, {kWidth, kHeight, 30}};
    tq::Mat queued[2];
    const JoinedImage out;
    std::size_t next = 0;
    const auto frame = [&] {
        for (int eye = 0; eye < 2; ++eye) {
            tq::Mat* const buffer = rings[eye].acquire();
            std::memcpy(buffer->getPtr<unsigned char>(sdk::kHostMemory), captured[next].data(),
                        kEyeBytes);
            queued[eye].clone(*buffer);
            rings[eye].markInFlight(buffer);
            rings[eye].release();
            next = (next + 1) % kFrames;
        }
        joinSideBySide(queued[0], queued[1], kWidth, kHeight, out.data());
        benchmark::ClobberMemory();
    };
    frame();  // the first frame fills the pools
    const AllocationCounter counter;
    for (auto _ : state) {
        frame();
    }
    counter.report(state);
}

BENCHMARK(memcpyStereoFrame)->Unit(benchmark::kMicrosecond);
BENCHMARK(joinStereoFrame)->Unit(benchmark::kMicrosecond);
BENCHMARK(captureCopyAndJoin)->Unit(benchmark::kMicrosecond);

}  // namespace

void* operator new(std::size_t bytes)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(bytes != 0 ? bytes : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

BENCHMARK_MAIN();
