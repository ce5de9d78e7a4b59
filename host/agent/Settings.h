// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Poco/Util/AbstractConfiguration.h>

#include "host/agent/StartPlan.h"

namespace Agent {

// Puts what the modules go by (SDK::Config) into the application's configuration, before they are loaded.
void GiveSettings(const StartPlan& plan, Poco::Util::AbstractConfiguration& settings);

}  // namespace Agent
