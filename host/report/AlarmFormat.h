// SPDX-License-Identifier: Apache-2.0
// The forms in which alarms leave the agent.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>

#include "host/report/AlarmContext.h"
#include "host/report/AlarmEnvelope.h"
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

    explicit AlarmFormat(Form form, AlarmEnvelope::Settings settings = {}) : form(form), envelope(std::move(settings))
    {
    }

    bool WantsContext() const { return form == Form::Envelope; }

    // `alarm`: a JSON object, printable ASCII; `document`: the same, parsed. `context` and `names` may be null.
    // `policy`: the SHA-256 of the policy in force. `exception`: that holds for the alarm; empty: none does.
    std::string Format(const std::string& alarm, const Json::Value& document, const AlarmContext* context,
                       const SDK::ContainerNames* names, const std::string& policy, const std::string& exception = {});

private:
    Form form;
    AlarmEnvelope envelope;
};

}  // namespace Engine
