// SPDX-License-Identifier: Apache-2.0
// Queue of the images of one eye.
#include "capture/ImageQueue.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t kFirstPlaces = 16;

}  // namespace

void ImageQueue::push(std::unique_ptr<tq::Mat> image)
{
    if (count == images.size()) {
        const auto front = images.begin() + static_cast<std::ptrdiff_t>(oldest);
        std::rotate(images.begin(), front, images.end());
        oldest = 0;
        images.resize(std::max(kFirstPlaces, 2 * count));
    }
    images[placeOf(count)] = std::move(image);
    ++count;
}

std::unique_ptr<tq::Mat> ImageQueue::pop()
{
    std::unique_ptr<tq::Mat> image = std::move(images[oldest]);
    oldest = placeOf(1);
    --count;
    return image;
}

void ImageQueue::clear()
{
    while (count > 0) {
        pop();
    }
}
