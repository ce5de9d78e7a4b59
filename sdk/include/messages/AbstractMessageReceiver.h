// SPDX-License-Identifier: Apache-2.0
// The untyped receiving side: what a task overrides to take file notifications, process and asset lists, and raw trace
// events from senders that do not use AbstructMessage<T>::Receiver.
#pragma once

#include <map>
#include <memory>

#include "messages/ProcsMessage.h"

namespace Engine {

class FileNotifyMessage;
class FtraceMessage;

// Assets of the host (packages, accounts, ports). No module here sends or reads them.
struct AssetMessage {
    struct assetInfo;
};

class AbstractMessageReceiver {
public:
    // NOLINTBEGIN(performance-unnecessary-value-param): by value, senders and receivers agree on these signatures.
    // Each is called on the receiving task's thread and returns its result; the defaults do nothing and return 0.
    // A message passed by pointer stays the sender's.
    virtual int FileNotifyMessageAction(FileNotifyMessage* /*message*/) { return 0; }
    virtual int ProcsMessageAction(int /*event*/, unsigned int /*count*/,
                                   std::shared_ptr<ProcsMessage::procInfo> /*process*/)
    {
        return 0;
    }
    virtual int AssetMessageAction(unsigned int /*kind*/,
                                   std::map<int, std::shared_ptr<AssetMessage::assetInfo>> /*assets*/)
    {
        return 0;
    }
    // NOLINTEND(performance-unnecessary-value-param)
    virtual int FtraceMessageAction(const FtraceMessage* /*message*/) { return 0; }
    virtual ~AbstractMessageReceiver() = default;
};

}  // namespace Engine
