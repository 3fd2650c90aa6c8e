// SPDX-License-Identifier: Apache-2.0
// Queue of the images of one eye.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "capture/sdk.h"

/// Queue of owned images, oldest first. It has no bound, and it keeps the memory it has grown to,
/// so that a stream in its steady state allocates nothing here. Not thread safe.
class ImageQueue {
public:
    std::size_t size() const { return count; }

    /// @param index 0 is the oldest image; must be below size()
    const tq::Mat& operator[](std::size_t index) const { return *images[placeOf(index)]; }

    /// Appends the newest image.
    void push(std::unique_ptr<tq::Mat> image);

    /// Takes the oldest image out; there must be one.
    std::unique_ptr<tq::Mat> pop();

    /// Deletes every image.
    void clear();

private:
    std::size_t placeOf(std::size_t index) const { return (oldest + index) % images.size(); }

    std::vector<std::unique_ptr<tq::Mat>> images;  // a ring; those not in use are null
    std::size_t oldest = 0;
    std::size_t count = 0;
};
