// SPDX-License-Identifier: Apache-2.0
// The forms in which alarms leave the agent.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/report/AlarmContext.h"
#include "host/sdk/ContainerNames.h"

namespace Engine {

// Thread: one at a time.
class AlarmFormat {
public:
    enum class Form {
        Plain,     // the module's document, byte for byte
        Envelope,  // a JSON object around it, with what the host knows; see packaging/envelope.schema.json
        Text       // a line for a terminal
    };

    // `form`: "plain", "envelope" or "text"; "auto": text for a terminal, else plain.
    static Form Parse(const std::string& form, bool isTerminal);

    explicit AlarmFormat(Form form) : form(form) {}

    bool WantsContext() const { return form == Form::Envelope; }

    // `alarm`: a JSON object, printable ASCII. `context` and `names` may be null. `policy`: the SHA-256 of the policy
    // in force.
    std::string Format(const std::string& alarm, const AlarmContext* context, const SDK::ContainerNames* names,
                       const std::string& policy);

private:
    std::string Enveloped(const std::string& alarm, const AlarmContext* context, const SDK::ContainerNames* names,
                          const std::string& policy);

    Form form;
    std::map<std::string, std::uint64_t> lossesBefore;
};

}  // namespace Engine
