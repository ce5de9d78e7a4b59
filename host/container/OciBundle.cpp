// SPDX-License-Identifier: Apache-2.0
#include "host/container/OciBundle.h"

#include <algorithm>
#include <initializer_list>

#include "host/container/EngineDocuments.h"
#include "host/sdk/ImageReference.h"
#include "host/sdk/JsonMembers.h"

namespace Engine::OciBundle {

namespace {

using EngineDocuments::Text;
using SDK::JsonMembers::First;
using SDK::JsonMembers::Member;
using SDK::JsonMembers::Parse;

constexpr std::size_t imageIdDigits = 64;  // of a digest, without its kind
constexpr std::string_view imageIdKind = "sha256:";

// The first of the members that is there.
std::string FirstText(const Json::Value& value, std::initializer_list<const char*> keys)
{
    std::string text;
    for (const char* key : keys) {
        text = text.empty() ? Text(value, key) : text;
    }
    return text;
}

// Where host directories and files are mounted; engines mount each container's host name and resolver, too.
std::vector<std::string> Destinations(const Json::Value& mounts)
{
    std::vector<std::string> destinations;
    for (Json::ArrayIndex i = 0; mounts.isArray() && i < mounts.size(); ++i) {
        const std::string destination = Text(mounts[i], "destination");
        if (Text(mounts[i], "type") == "bind" && IsOfItsOwner(destination) &&
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
    info.engine = info.pod.name.empty() ? "" : "cri";
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

bool HasForeignAnnotations(const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    const Json::Value none;
    const Json::Value& notes = Member(root ? *root : none, "annotations");
    const Json::Value::Members keys = notes.isObject() ? notes.getMemberNames() : Json::Value::Members{};
    const auto have = [&keys](const char* prefix) {
        return std::any_of(keys.begin(), keys.end(),
                           [prefix](const std::string& key) { return key.starts_with(prefix); });
    };
    return have("io.kubernetes.cri.") && have("io.kubernetes.cri-o.");
}

std::optional<ContainerInfo> ParseStored(const std::string& id, const std::string& text)
{
    const std::optional<Json::Value> root = Parse(text);
    for (Json::ArrayIndex i = 0; root && root->isArray() && i < root->size(); ++i) {
        const Json::Value& each = (*root)[i];
        if (Text(each, "id") != id) {
            continue;
        }
        // A document within a text: what the maker of the container keeps there.
        const std::optional<Json::Value> notes = Parse(Text(each, "metadata"));
        const Json::Value& name = First(Member(each, "names"));
        ContainerInfo info;
        info.id = id;
        info.imageId = ImageId(Text(each, "image"));
        if (notes) {
            info.name = Text(*notes, "name");
            info.imageName = FamiliarImageName(Text(*notes, "image-name"));
        }
        if (info.name.empty() && name.isString()) {
            info.name = name.asString().substr(0, EngineDocuments::maxTextBytes);
        }
        return info;
    }
    return std::nullopt;
}

bool IsImageId(std::string_view text)
{
    text.remove_prefix(text.starts_with(imageIdKind) ? imageIdKind.size() : 0);
    return text.size() == imageIdDigits && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::string ImageId(const std::string& id)
{
    const bool isBare = id.size() == imageIdDigits && id.find(':') == std::string::npos;
    return std::string{isBare ? imageIdKind : ""}.append(id);
}

bool IsOfItsOwner(const std::string& destination)
{
    return !destination.empty() && destination != "/etc/hosts" && destination != "/etc/hostname" &&
           destination != "/etc/resolv.conf" && destination != "/dev/shm";
}

std::string FamiliarImageName(std::string_view name)
{
    constexpr std::string_view registry = "docker.io/";
    constexpr std::string_view folder = "library/";
    std::string_view familiar = name;
    if (name.starts_with(registry)) {
        familiar.remove_prefix(registry.size());
        familiar.remove_prefix(familiar.starts_with(folder) ? folder.size() : 0);
    }
    // "docker.io/example.org/web" stays: without its registry it would be an image of another one.
    using SDK::ImageReference::Canonical;
    return std::string{Canonical(familiar) == Canonical(name) ? familiar : name};
}

}  // namespace Engine::OciBundle
