// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "LogSite.h"

namespace Engine {

using TraceLog = SDK::LogSite<SDK::NamedLogger<"ftrace_module">>;  // TraceLog::Warning("...", ...)

}  // namespace Engine
