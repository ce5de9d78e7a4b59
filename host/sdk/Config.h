// SPDX-License-Identifier: Apache-2.0
// The agent's settings, as the program puts them into the application's configuration
// (Poco::Util::Application::config()) before it loads a module, and as modules read them.
#pragma once

namespace SDK::Config {

// The container engines, as EngineAddress::Join writes them; empty: none; absent: those of EngineAddress::Usual.
inline constexpr char engines[] = "engines";
inline constexpr char noEngine[] = "none";           // as a value of the options --engine and --docker-socket
inline constexpr char alarmsFile[] = "alarms.file";  // file that alarms are appended to; absent: standard output
inline constexpr char alarmsMaxBytes[] = "alarms.max_bytes";    // size at which that file is renamed; absent, 0: never
inline constexpr char alarmsKept[] = "alarms.kept";             // how many renamed ones there may be, at least 1
inline constexpr char alarmsFormat[] = "alarms.format";         // as the option --alarm-format; absent: "auto"
inline constexpr char showExcepted[] = "alarms.show_excepted";  // as the option --show-excepted; absent: false
inline constexpr char policySha256[] = "policy.sha256";         // of the policy in force, hexadecimal
inline constexpr char traceBufferKb[] = "trace.buffer_kb";      // size of the kernel's buffer for each CPU, in KiB
inline constexpr char syscallSource[] = "trace.syscalls";       // as the option --syscalls; absent: "auto"

// As JSON: an object, and a list of expressions (Redaction). Absent: none.
inline constexpr char hostLabels[] = "alarms.host_labels";
inline constexpr char redactions[] = "alarms.redactions";

// Whether what a container executes is recorded with its arguments, user and directory; absent: no.
inline constexpr char describePrograms[] = "trace.describe_programs";

}  // namespace SDK::Config
