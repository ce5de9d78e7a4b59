// SPDX-License-Identifier: Apache-2.0
#include "host/container/OciBundle.h"

#include <json/value.h>

#include <algorithm>
#include <initializer_list>

#include "host/container/EngineDocuments.h"
#include "sdk/JsonUtils.h"

namespace Engine::OciBundle {

namespace {

using EngineDocuments::Member;
using EngineDocuments::Text;

constexpr std::size_t imageIdDigits = 64;  // of a digest, without its kind

std::optional<Json::Value> Parse(const std::string& text)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root) != 0) {
        return std::nullopt;
    }
    return root;
}

// The first of the members that is there.
std::string FirstText(const Json::Value& value, std::initializer_list<const char*> keys)
{
    std::string text;
    for (const char* key : keys) {
        text = text.empty() ? Text(value, key) : text;
    }
    return text;
}

// With its kind in front, as Docker writes it.
std::string ImageId(const std::string& id)
{
    const bool isBare = id.size() == imageIdDigits && id.find(':') == std::string::npos;
    return isBare ? "sha256:" + id : id;
}

// Where host directories and files are mounted; engines mount each container's host name and resolver, too.
std::vector<std::string> Destinations(const Json::Value& mounts)
{
    std::vector<std::string> destinations;
    for (Json::ArrayIndex i = 0; mounts.isArray() && i < mounts.size(); ++i) {
        const std::string destination = Text(mounts[i], "destination");
        const bool isOwn = destination == "/etc/hosts" || destination == "/etc/hostname" ||
                           destination == "/etc/resolv.conf" || destination == "/dev/shm";
        if (Text(mounts[i], "type") == "bind" && !destination.empty() && !isOwn &&
            destinations.size() < EngineDocuments::maxMounts) {
            destinations.push_back(destination);
        }
    }
    return destinations;
}

}  // namespace

std::optional<ContainerInfo> ParseConfig(const std::string& id, const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    if (!root || !Member(*root, "process").isObject() || !Member(*root, "root").isObject()) {
        return std::nullopt;
    }
    const Json::Value& notes = Member(*root, "annotations");
    ContainerInfo info;
    info.id = id;
    info.pod.name = FirstText(notes, {"io.kubernetes.cri.sandbox-name", "io.kubernetes.pod.name"});
    info.pod.nameSpace = FirstText(notes, {"io.kubernetes.cri.sandbox-namespace", "io.kubernetes.pod.namespace"});
    info.pod.uid = FirstText(notes, {"io.kubernetes.cri.sandbox-uid", "io.kubernetes.pod.uid"});
    info.name = FirstText(notes, {"io.kubernetes.cri.container-name", "io.kubernetes.container.name"});
    if (info.name.empty()) {
        info.name = info.pod.name;
    }
    info.imageName = FamiliarImageName(FirstText(
        notes, {"io.kubernetes.cri.image-name", "io.kubernetes.cri-o.ImageName", "io.kubernetes.cri-o.Image"}));
    info.imageId = ImageId(Text(notes, "io.kubernetes.cri-o.ImageRef"));
    info.mountDestinations = Destinations(Member(*root, "mounts"));
    return info;
}

std::optional<ContainerInfo> ParseStored(const std::string& id, const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    for (Json::ArrayIndex i = 0; root && root->isArray() && i < root->size(); ++i) {
        const Json::Value& each = (*root)[i];
        if (Text(each, "id") != id) {
            continue;
        }
        // A document within a text, for whoever made the container.
        const std::optional<Json::Value> notes = Parse(Text(each, "metadata"));
        const Json::Value& names = Member(each, "names");
        ContainerInfo info;
        info.id = id;
        info.imageId = ImageId(Text(each, "image"));
        if (notes) {
            info.name = Text(*notes, "name");
            info.imageName = FamiliarImageName(Text(*notes, "image-name"));
        }
        if (info.name.empty() && names.isArray() && !names.empty() && names[0].isString()) {
            info.name = names[0].asString().substr(0, EngineDocuments::maxTextBytes);
        }
        return info;
    }
    return std::nullopt;
}

std::string FamiliarImageName(std::string_view name)
{
    constexpr std::string_view registry = "docker.io/";
    constexpr std::string_view folder = "library/";
    if (name.starts_with(registry)) {
        name.remove_prefix(registry.size());
        name.remove_prefix(name.starts_with(folder) ? folder.size() : 0);
    }
    return std::string{name};
}

}  // namespace Engine::OciBundle
