// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "LogSite.h"

namespace Engine {

using NotifyLog = SDK::LogSite<SDK::NamedLogger<"filenotify_module">>;  // NotifyLog::Warning("...", ...)

}  // namespace Engine
