// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace CLI {
class App;
}

namespace Agent {

struct Options;

// Gives a command the options that say what envelopes tell, and what not.
void AddEnvelopeOptions(CLI::App& command, Options& options);

}  // namespace Agent
