// SPDX-License-Identifier: Apache-2.0
// The framework's own log lines, through the agent's root logger.
#pragma once

#include <Poco/Message.h>

#include <string>

namespace Framework {

// One line, formatted as printf(3) does, dropped when the level does not admit it. Failures to log are swallowed.
// Any thread.
void LogAt(Poco::Message::Priority priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// What the exception that is being handled says. Only inside a catch block.
std::string CurrentExceptionText();

}  // namespace Framework
