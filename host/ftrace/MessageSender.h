// SPDX-License-Identifier: Apache-2.0
// How the trace task's messages get to other tasks.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "framework/Message.h"

namespace Engine {

// Refused: the task's queue is full. Gone: there is no such task, or it takes no messages any more.
enum class Sending { Accepted, Refused, Gone };

// Takes a message to the task of that name.
using MessageSender = std::function<Sending(const std::string& task, std::unique_ptr<Framework::Message> message)>;

}  // namespace Engine
