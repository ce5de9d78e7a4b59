// SPDX-License-Identifier: Apache-2.0
// What the files that an engine keeps beside a container say about it, parsed: config.json of the OCI runtime
// specification, with the annotations of Kubernetes engines, and containers.json of the storage that Podman and CRI-O
// share. Pure; every text is hostile input: an unexpected type counts as absent, what is too long is cut. Throws
// nothing but std::bad_alloc.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "messages/ContainerMessages.h"

namespace Engine::OciBundle {

// Container `id` by its config.json. Its name is the container's in its pod, or the pod's for the process that holds a
// pod's namespaces; the image is that of the annotations. What the file does not tell is empty: an engine that keeps
// names elsewhere writes none. Nothing when the text is no such document.
std::optional<ContainerInfo> ParseConfig(const std::string& id, const std::string& text);

// Whether a config.json has annotations of both containerd and CRI-O. Those of the one that did not make it come from
// the author of the pod, as CRI-O hands them on, and nothing tells which these are.
bool HasForeignAnnotations(const std::string& text);

// The name and the image of container `id` by containers.json. Nothing when the text is no such document, or does not
// tell of it.
std::optional<ContainerInfo> ParseStored(const std::string& id, const std::string& text);

// Whether a text is an image's id, with its kind in front or without.
bool IsImageId(std::string_view text);
// An image's id with its kind in front, as Docker writes it.
std::string ImageId(const std::string& id);

// Whether a container's owner has asked for the mount that ends there; some engines make themselves.
bool IsOfItsOwner(const std::string& destination);

// An image's reference as Docker shows it: without the registry that is its default, and that one's own folder.
std::string FamiliarImageName(std::string_view name);

}  // namespace Engine::OciBundle
