// SPDX-License-Identifier: Apache-2.0
// Writes what is complete already.
#pragma once

#include <cstddef>
#include <fstream>
#include <string>

namespace receive {

/// Writes a whole file, in place of one of that name.
/// @return false, and errno says why
inline bool writeFile(const std::string& path, const void* data, std::size_t bytes)
{
    std::ofstream file(path, std::ios::binary);
    file.write(static_cast<const char*>(data), static_cast<std::streamsize>(bytes));
    file.close();
    return file.good();
}

}  // namespace receive
