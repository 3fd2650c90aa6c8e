// SPDX-License-Identifier: Apache-2.0
// Registration of the SDK's records with Qt.
#include "capture/sdk.h"

namespace sdk {

void registerMetaTypes()
{
    qRegisterMetaType<tq::Mat>("tq::Mat");
    qRegisterMetaType<tq::IMUPacket>("tq::IMUPacket");
    qRegisterMetaType<std::vector<tq::IMUPacket>>("std::vector<tq::IMUPacket>");
}

}  // namespace sdk
