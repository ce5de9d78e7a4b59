// SPDX-License-Identifier: Apache-2.0
// The agent's settings, as the program puts them into the application's configuration
// (Poco::Util::Application::config()) before it loads a module, and as modules read them.
#pragma once

namespace SDK::Config {

inline constexpr char dockerSocket[] = "docker.socket";  // path of the engine's socket, or noEngine
inline constexpr char noEngine[] = "none";
inline constexpr char alarmsFile[] = "alarms.file";  // file that alarms are appended to; absent: standard output
inline constexpr char alarmsMaxBytes[] = "alarms.max_bytes";  // size at which that file is renamed; absent, 0: never
inline constexpr char alarmsKept[] = "alarms.kept";           // how many renamed ones there may be, at least 1
inline constexpr char alarmsFormat[] = "alarms.format";       // as the option --alarm-format; absent: "auto"
inline constexpr char policySha256[] = "policy.sha256";       // of the policy in force, hexadecimal
inline constexpr char traceBufferKb[] = "trace.buffer_kb";    // size of the kernel's buffer for each CPU, in KiB
inline constexpr char syscallSource[] = "trace.syscalls";     // as the option --syscalls; absent: "auto"

inline constexpr char defaultDockerSocket[] = "/var/run/docker.sock";

}  // namespace SDK::Config
