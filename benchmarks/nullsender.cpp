// SPDX-License-Identifier: Apache-2.0
// A network sender that sends nothing, so that a benchmark measures what comes before it. A program
// that is built with this file uses it in place of the library's.
#include "capture/sdk.h"

namespace tq {

struct UDPOutput::Private {};

UDPOutput::UDPOutput(STREAMING_MODE, bool) {}

UDPOutput::~UDPOutput() = default;

int UDPOutput::open(UDPOutConfig)
{
    return 0;
}

void UDPOutput::ingestYUVFrame(unsigned char*, Timestamp, kvfrw::kvfSampleMetadata) {}

void UDPOutput::ingestIMU(IMUPacket) {}

void UDPOutput::close() {}

}  // namespace tq
