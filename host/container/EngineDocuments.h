// SPDX-License-Identifier: Apache-2.0
// What the container engine's API says, parsed (its HTTP API, version 1.24 and later: "List containers", "Inspect a
// container", "Monitor events"). Pure; every text is hostile input: an unexpected type counts as absent, what is too
// long is cut. Throws nothing but std::bad_alloc.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "messages/ContainerMessages.h"

namespace Engine::EngineDocuments {

inline constexpr std::size_t maxTextBytes = 4096;
inline constexpr std::size_t maxMounts = 1024;
inline constexpr std::size_t maxLabelBytes = 16UL * 1024;  // of one container, all labels together
inline constexpr std::size_t maxLabels = 256;
inline constexpr std::size_t maxListed = 10000;
// Of one container: labels and annotations take up to 256 KiB with the common orchestrators.
inline constexpr std::size_t maxElementBytes = 1024UL * 1024;

// Whether a text may stand for a container in a request: 1 to 128 letters, digits, '_', '.' and '-', the first of them
// a letter or digit.
bool IsContainerId(std::string_view text);

// The member if it is a text, cut at maxTextBytes; else empty.
std::string Text(const Json::Value& value, const char* key);

// Adds a label if all of the container's stay within maxLabels and maxLabelBytes: none is cut, which could make it
// another.
void AddLabel(std::string key, std::string value, std::map<std::string, std::string>& labels);

// "/containers/<id>/json".
struct Inspected {
    ContainerInfo info;  // namespaces are empty
    int pid = 0;         // of the container's first process, 0 when it does not run
};
// Nothing when the text is no such document or names no container.
std::optional<Inspected> ParseInspected(const std::string& text);

// Whether a text may stand for an image in a request: letters, digits, '_', '.', '-', '/', ':' and '@', without "..".
bool IsImageName(std::string_view text);

// "/images/<name>/json": what tells of the image, with an empty id of the container.
ContainerInfo ParseImage(const std::string& text);

// The digest in an image's reference: what follows "@"; empty when there is none.
std::string DigestIn(std::string_view reference);

// "/containers/json", in parts as they come: the ids. What in it is no container is skipped, and so is an element of
// more than maxElementBytes. What is nested in an element, labels for example, is passed over: only the outer members
// of one element are in memory at a time.
class ListReader {
public:
    // False: no more is wanted, the text is no array or has enough containers.
    bool Take(std::string_view part);

    const std::vector<std::string>& Ids() const { return ids; }
    // The array's end has come.
    bool IsComplete() const { return state == State::After; }
    // Some containers may not be among the ids.
    bool HasSkipped() const { return hasSkipped; }

private:
    enum class State { Before, Within, After };

    bool TakeOne(char c);
    void EndElement();

    State state = State::Before;
    std::size_t depth = 0;  // of arrays and objects within the element
    bool inText = false;
    bool isEscaped = false;  // the next character of the text
    std::string element;     // its outer members as far as they have come, cut at maxElementBytes + 1
    std::vector<std::string> ids;
    bool hasSkipped = false;
};

// A line of "/events".
struct Event {
    std::string action;  // "create", "start", "die", "destroy", "rename", "exec_create: ..." and others
    ContainerInfo info;  // what comes with the event: id, name, imageName
};
// Nothing when the line is no event about a container.
std::optional<Event> ParseEvent(const std::string& line);

}  // namespace Engine::EngineDocuments
