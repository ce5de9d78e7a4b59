// SPDX-License-Identifier: Apache-2.0
#include "framework/Message.h"

#include "framework/Task.h"

namespace Framework {

int Message::MessageHandle(void* target)
{
    auto* const task = static_cast<Task*>(target);
    return task == nullptr ? -1 : task->HandleMsg(this);
}

}  // namespace Framework
