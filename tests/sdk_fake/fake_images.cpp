// SPDX-License-Identifier: Apache-2.0
// Records what is asked of image buffers. The images themselves are the open SDK's: the linker
// sends the calls through here (--wrap), so the functions carry the names that it makes up for
// that.
#include "tests/sdk_fake/world.h"

using sdkfake::Image;
using sdkfake::join;
using sdkfake::record;

extern "C" {

// NOLINTBEGIN(readability-identifier-naming, bugprone-reserved-identifier)
void __real__ZN2tq3Mat5allocEmmNS_8MAT_TYPEENS_3MEME(tq::Mat* self, unsigned long width,
                                                     unsigned long height, tq::MAT_TYPE type,
                                                     tq::MEM memory);
void __real__ZN2tq3Mat4freeENS_3MEME(tq::Mat* self, tq::MEM memory);
void __real__ZN2tq3Mat5cloneERKS0_(tq::Mat* self, const tq::Mat& other);

void __wrap__ZN2tq3Mat5allocEmmNS_8MAT_TYPEENS_3MEME(tq::Mat* self, unsigned long width,
                                                     unsigned long height, tq::MAT_TYPE type,
                                                     tq::MEM memory)
{
    record(Image, "Mat", "alloc",
           join(width, height, static_cast<int>(type), static_cast<int>(memory)));
    __real__ZN2tq3Mat5allocEmmNS_8MAT_TYPEENS_3MEME(self, width, height, type, memory);
}

void __wrap__ZN2tq3Mat4freeENS_3MEME(tq::Mat* self, tq::MEM memory)
{
    record(Image, "Mat", "free", join(static_cast<int>(memory)));
    __real__ZN2tq3Mat4freeENS_3MEME(self, memory);
}

void __wrap__ZN2tq3Mat5cloneERKS0_(tq::Mat* self, const tq::Mat& other)
{
    record(Image, "Mat", "clone", join(sdk::captureTime(other)));
    __real__ZN2tq3Mat5cloneERKS0_(self, other);
}
// NOLINTEND(readability-identifier-naming, bugprone-reserved-identifier)

}  // extern "C"
