// SPDX-License-Identifier: Apache-2.0
// Reading of whole files that somebody else has put there.
#include "sdk/core/readfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tq {

namespace {

constexpr std::size_t kPiece = 65536;

/// A file descriptor, closed when it goes.
struct Descriptor {
    explicit Descriptor(int opened) : number(opened) {}
    ~Descriptor()
    {
        if (number >= 0) {
            ::close(number);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    const int number;
};

FileContents refused(const std::string& reason)
{
    return {std::nullopt, false, reason};
}

FileContents unreadable()
{
    return refused(std::string("cannot be read: ") + std::strerror(errno));
}

std::string tooLarge(std::size_t largest)
{
    const bool whole = largest % (1u << 20) == 0;
    return "larger than " +
           (whole ? std::to_string(largest >> 20) + " MiB" : std::to_string(largest) + " bytes");
}

/// What is wrong with a file of this kind and size, or empty.
std::string objection(const struct stat& status, std::size_t largest)
{
    if (S_ISDIR(status.st_mode)) {
        return "is a folder";
    }
    if (!S_ISREG(status.st_mode)) {
        return "is not a regular file";
    }
    return static_cast<std::size_t>(status.st_size) > largest ? tooLarge(largest) : "";
}

}  // namespace

FileContents readRegularFile(const std::string& path, std::size_t largest)
{
    // Looked at before it is opened, as opening a device may do something, and after, as another
    // file may have taken its place. Opening never waits for the other end of a pipe.
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        return unreadable();
    }
    std::string wrong = objection(status, largest);
    if (!wrong.empty()) {
        return refused(wrong);
    }
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.number < 0 || ::fstat(file.number, &status) != 0) {
        return unreadable();
    }
    wrong = objection(status, largest);
    if (!wrong.empty()) {
        return refused(wrong);
    }
    // The size is what the file says: it may grow meanwhile, and some of the system's say 0.
    std::string bytes;
    for (std::size_t size = 0; size <= largest;) {
        bytes.resize(std::min(largest + 1, size + kPiece));
        const ssize_t count = ::read(file.number, bytes.data() + size, bytes.size() - size);
        if (count < 0 && errno != EINTR) {
            return unreadable();
        }
        if (count == 0) {
            bytes.resize(size);
            return {std::move(bytes), (status.st_mode & S_IROTH) != 0, ""};
        }
        size += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
    return refused(tooLarge(largest));
}

std::string everybodyReads(const std::string& path)
{
    return "everybody on this machine may read it, until: chmod o= '" + path + "'";
}

}  // namespace tq
