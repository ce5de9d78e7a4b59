// SPDX-License-Identifier: Apache-2.0
#include "framework/Task.h"
#include "messages/AbstractMessageReceiver.h"
#include "messages/FileNotifyMessages.h"

namespace Engine {

int FileNotifyMessage::MessageHandle(void* target)
{
    auto* receiver = dynamic_cast<AbstractMessageReceiver*>(static_cast<Framework::Task*>(target));
    return receiver == nullptr ? -1 : receiver->FileNotifyMessageAction(this);
}

}  // namespace Engine
