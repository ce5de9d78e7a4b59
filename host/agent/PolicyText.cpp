// SPDX-License-Identifier: Apache-2.0
#include "host/agent/PolicyText.h"

#include <map>

#include "PathEntry.h"
#include "PolicyTexts.h"
#include "host/agent/Console.h"

namespace Agent {

namespace {

std::string AccessesOf(const SDK::PathEntry& entry, bool isScopeContainer)
{
    const std::map<char, std::string> meanings{
        {'r', "opens or reads"}, {'w', "modifies"}, {'x', "executes"}, {'a', "changes the attributes of"}};
    if (entry.letters.empty()) {
        return isScopeContainer ? "modifies, makes, deletes, moves or changes the attributes of" : "modifies";
    }
    std::string accesses;
    for (const auto& [letter, meaning] : meanings) {
        if (entry.letters.find(letter) != std::string_view::npos) {
            accesses += (accesses.empty() ? "" : ", ") + meaning;
        }
    }
    return accesses;
}

std::string Entry(const char* kind, const std::string& name, const std::string& meaning)
{
    return Line(std::string(kind) + " \"" + name + "\": " + meaning);
}

}  // namespace

std::string ExamplePolicy()
{
    return examplePolicy;
}

std::string PolicySchema()
{
    return policySchema;
}

std::string Explain(const Policy& policy)
{
    const bool isOfContainers = policy.isScopeContainer;
    const std::string whose = isOfContainers ? " for each container" : " on the whole host";
    std::string text = isOfContainers
                           ? "scope \"container\": each container is judged as a whole, and by itself: no other "
                             "container's calls or alarms hide its own\n"
                           : "scope \"thread\": Shocker, Dirty COW and brute force are judged thread by thread, "
                             "and alarms of one name are merged for the whole host\n";
    for (const auto& [image, place] : policy.images) {
        text +=
            Entry("image", image, "the first processes of its containers are left alone, what these fork is watched");
    }
    for (const auto& [call, place] : policy.calls) {
        text += Entry("call", call, "\"High-Risk System Invocation\" when a container makes it, once an hour" + whose);
    }
    for (const auto& [directory, place] : policy.directories) {
        const SDK::PathEntry entry = SDK::ParsePathEntry(directory);
        text += Entry("directory", directory,
                      entry.error != nullptr
                          ? entry.error
                          : "\"Container file escape attack\" when a container " + AccessesOf(entry, isOfContainers) +
                                " a file below it, through whatever mount");
    }
    for (const std::string& warning : policy.warnings) {
        text += Line("warning: " + warning);
    }
    return text +
           "always: \"Shocker attack\" when directories are listed and a file is then opened by handle; \"Bruteforce "
           "syscall attack\" when files are opened by handle more than 300 times in a second\n";
}

}  // namespace Agent
