// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>

namespace SDK {

class NamespaceUtils {
public:
    // Fills `namespaces` with the process's namespaces: the kinds "ipc", "mnt", "net", "pid", "user" and "uts", each
    // with the text that its link under /proc/<pid>/ns holds, such as "mnt:[4026531841]" (namespaces(7)). 0, or -1 when
    // the process has gone or a link cannot be read; `namespaces` is then empty.
    static int GetProcessNamespace(int pid, std::map<std::string, std::string>& namespaces);
};

}  // namespace SDK
