// SPDX-License-Identifier: Apache-2.0
// The untyped receiving side: what a task overrides to take file notifications, process and asset lists, and raw trace
// events from senders that do not use AbstructMessage<T>::Receiver.
//
// Ownership: a message that is passed by pointer stays the sender's and ends after the call.
// Thread:    the receiving task's thread, one call at a time.
// Errors:    each receiver chooses its result. The defaults do nothing and return 0.
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
    // An access to a watched path, from "filenotify_task" (FileNotifyMessages.h).
    virtual int FileNotifyMessageAction(FileNotifyMessage* /*message*/) { return 0; }
    // Processes, assets, raw trace events: no task of this agent sends them so.
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
