// SPDX-License-Identifier: Apache-2.0
// Gives a fuzzer the inputs that are kept: replay FOLDER...
#include <cstdio>

#include "tests/fuzz/fuzz.h"

int main(int argc, char** argv)
{
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            std::string bytes(entry.file_size(), '\0');
            file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            std::printf("%s\n", entry.path().filename().c_str());
            std::fflush(stdout);
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                   bytes.size());
            ++inputs;
        }
    }
    fuzz::require(inputs > 0, "there are inputs");
    return 0;
}
