// SPDX-License-Identifier: Apache-2.0
// libcri_client.so: asks an engine by the Kubernetes container runtime interface (CRI, runtime.v1). It brings gRPC and
// half a hundred other libraries with it, and is loaded only where there is such an engine.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "messages/ContainerMessages.h"

namespace Engine::Cri {

inline constexpr char libraryName[] = "libcri_client.so";
inline constexpr char functionName[] = "AskCriEngine";
inline constexpr int maxReplyBytes = 1024 * 1024;  // a pod's annotations take up to 256 KiB

enum class Outcome {
    Known,
    Unknown,     // there is no such container
    Refused,     // of this container there is no answer, or one that is too long; others may be asked about
    Failed,      // the engine does not answer
    NotOffered,  // it does, but not by this interface
};

// Texts are hostile input, as long as a reply.
struct Answer {
    Outcome outcome = Outcome::Failed;
    std::string text;                     // unless it is known: why; to the empty id: the engine's name and version
    std::string name;                     // the container's, or the pod's of the process that holds its namespaces
    std::vector<std::string> images;      // names and ids that the image was asked for by, the best first
    std::vector<std::string> references;  // of the image itself: ids, and names with a digest
    std::vector<std::string> mounts;      // where they end in the container
    std::vector<std::pair<std::string, std::string>> labels;
    ContainerInfo::Pod pod;
    std::string details;  // of the container, a document of the engine's own; empty when there is none
};

// Asks about a container, a pod's sandbox among them; by the empty id, about the engine. All within the time-out.
// `connection`: to the engine's socket, not blocking; is closed. Thread: one at a time. Errors: throws nothing but
// std::bad_alloc. This is the type of the library's function.
using AskFunction = void(int connection, const std::string& id, std::chrono::milliseconds timeout, Answer& answer);

}  // namespace Engine::Cri
