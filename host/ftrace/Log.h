// SPDX-License-Identifier: Apache-2.0
// This module's log lines.
#pragma once

namespace Engine {

// One line each, formatted as printf(3) does, to the logger "ftrace_module"; dropped when its level does not admit it.
// Failures to log are swallowed. Any thread.
[[gnu::format(printf, 1, 2)]] void LogError(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void LogWarning(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void LogInformation(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void LogDebug(const char* format, ...);

}  // namespace Engine
