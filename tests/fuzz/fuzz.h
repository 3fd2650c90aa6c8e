// SPDX-License-Identifier: Apache-2.0
// What the fuzzers share. Each hands bytes of anybody's to one reader and checks what must hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

/// One input. What it does to the process is judged by the sanitizers and by fuzz::require().
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

namespace fuzz {

/// Ends the process, which counts as a crash, unless the condition holds.
inline void require(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

inline std::string_view text(const std::uint8_t* bytes, std::size_t size)
{
    return {reinterpret_cast<const char*>(bytes), size};
}

/// A folder in memory for the files of this process.
class Folder {
public:
    Folder()
    {
        char name[] = "/dev/shm/vistrel-fuzz.XXXXXX";
        require(mkdtemp(name) != nullptr, "a folder in /dev/shm");
        path = name;
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    /// Writes a file, and the folders that it is in.
    /// @return its path
    std::string write(const std::string& name, std::string_view contents) const
    {
        const std::filesystem::path file = path / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << contents;
        return file.string();
    }

    std::filesystem::path path;
};

}  // namespace fuzz
