// SPDX-License-Identifier: Apache-2.0
// Writes pictures and inertial data as a folder in the ASL layout.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/receive/session.h"
#include "tools/receive/statistics.h"

namespace receive {

/// A list that holds whole lines only, whatever becomes of the disk.
class ListFile {
public:
    ListFile() = default;
    ~ListFile();
    ListFile(const ListFile&) = delete;
    ListFile& operator=(const ListFile&) = delete;

    /// @return false, and errno says why
    bool open(const std::string& path, const std::string& heading);
    /// Appends whole, or leaves the list as it was.
    /// @return false, and errno says why
    bool append(const std::string& line);
    /// Takes the last line back.
    void takeBack();

private:
    int file = -1;
    std::int64_t before = 0;  // bytes in front of the last line
    std::int64_t bytes = 0;
};

/// Writes DIR/mav0 with cam0, cam1 and imu0. Pictures are the luma, 8 bits, coded as PNG by threads
/// of its own and named by their exact capture times. A pair is written whole or not at all. Thread
/// safe.
class AslWriter {
public:
    /// @param folder     DIR
    /// @param waits      picture() waits while too many pairs wait; otherwise the pair is left out
    /// @param whenFailed called at most once, with what cannot be written and why
    AslWriter(std::string folder, bool waits, std::function<void(const std::string&)> whenFailed);
    ~AslWriter();
    AslWriter(const AslWriter&) = delete;
    AslWriter& operator=(const AslWriter&) = delete;

    /// Makes the folders and lists.
    /// @return what cannot be made and why, or empty
    std::string open();

    /// @return false when it is too late for it
    bool picture(const Frame& picture);
    void record(const FrameRecord& record, std::uint32_t time);
    void imu(const ImuRecord& record);

    /// Writes what waits, and completes the folder.
    void finish();

    std::uint64_t pairsWritten() const;
    /// Pairs that came faster than they could be written, or without their exact time.
    std::uint64_t pairsLeftOut() const;

private:
    struct Pair;
    struct Camera {
        std::string folder;
        ListFile list;
    };

    bool take(std::unique_lock<std::mutex>& lock, std::unique_ptr<Pair> pair);
    void encode();
    void commit(std::unique_lock<std::mutex>& lock);
    bool store(const Pair& pair);
    void fail(const std::string& problem);
    void describe(const Pair& pair);

    const std::string mav;
    const bool patient;
    const std::function<void(const std::string&)> onFailure;

    mutable std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    std::vector<std::thread> threads;
    bool ending = false;
    bool failed = false;
    bool described = false;
    bool committing = false;
    Latest<std::uint32_t, FrameRecord> records;            // by media time
    std::deque<std::unique_ptr<Pair>> early;               // without their record yet
    std::deque<std::unique_ptr<Pair>> waiting;             // for a thread
    std::map<std::uint64_t, std::unique_ptr<Pair>> coded;  // until those before are
    std::uint64_t taken = 0;
    std::uint64_t stored = 0;  // or given up; the number of the next
    std::uint64_t written = 0;
    std::uint64_t leftOut = 0;
    std::uint64_t lastTime = 0;
    Camera cameras[2];
    ListFile imuList;
    std::uint64_t imuPackets = 0;
    std::uint64_t firstImu = 0;
    std::uint64_t lastImu = 0;
};

}  // namespace receive
