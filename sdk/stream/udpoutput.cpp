// SPDX-License-Identifier: Apache-2.0
// The network sender: checks its configuration and joins encoder, feed and server.
#include <gst/gst.h>

#include <memory>
#include <string>
#include <utility>

#include "sdk/core/log.h"
#include "sdk/rig/rig.h"
#include "sdk/stream/encoders.h"
#include "sdk/stream/streamsender.h"
#include "tq_kor/sender.h"

namespace tq {

struct UDPOutput::Private {
    stream::StreamSender sender;
};

UDPOutput::UDPOutput(STREAMING_MODE, bool verbose) : d(new Private{stream::StreamSender(verbose)})
{
}

UDPOutput::~UDPOutput() = default;

int UDPOutput::open(UDPOutConfig config)
{
    return static_cast<int>(d->sender.open(config));
}

void UDPOutput::ingestYUVFrame(unsigned char* yuyv, Timestamp timestamp,
                               kvfrw::kvfSampleMetadata metadata)
{
    d->sender.ingestFrame(yuyv, timestamp, metadata);
}

void UDPOutput::ingestIMU(IMUPacket packet)
{
    d->sender.ingestIMU(packet);
}

void UDPOutput::close()
{
    d->sender.close();
}

}  // namespace tq
