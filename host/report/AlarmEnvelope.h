// SPDX-License-Identifier: Apache-2.0
// An alarm with what is known about its process, its container and the host: packaging/envelope.schema.json.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "host/report/AlarmContext.h"
#include "host/sdk/ContainerNames.h"
#include "host/sdk/Redaction.h"

namespace Engine {

// Thread: one at a time.
class AlarmEnvelope {
public:
    struct Settings {
        Json::Value hostLabels{Json::objectValue};  // as the operator gave them
        SDK::Redaction redaction;                   // of arguments
    };

    AlarmEnvelope() = default;
    explicit AlarmEnvelope(Settings settings) : settings(std::move(settings)) {}

    // As AlarmFormat::Format.
    std::string Make(const std::string& alarm, const Json::Value& document, const AlarmContext* context,
                     const SDK::ContainerNames* names, const std::string& policy, const std::string& exception);

    // RFC 3339 without a zone, in UTC. `seconds` of the epoch.
    static std::string Timestamp(std::int64_t seconds);

private:
    Settings settings;
    std::map<std::string, std::uint64_t> lossesBefore;
};

}  // namespace Engine
