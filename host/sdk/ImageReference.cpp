// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/ImageReference.h"

#include <algorithm>
#include <cstddef>

namespace SDK::ImageReference {

namespace {

constexpr std::string_view digestKind = "sha256:";
constexpr char defaultRegistry[] = "docker.io";

bool IsRegistry(std::string_view component)
{
    return component.find_first_of(".:") != std::string_view::npos || component == "localhost";
}

bool HasTag(std::string_view path)
{
    return path.substr(path.rfind('/') + 1).find(':') != std::string_view::npos;  // npos + 1 is 0
}

}  // namespace

std::string Canonical(std::string_view reference)
{
    const std::size_t at = std::min(reference.find('@'), reference.size());
    const std::string_view digest = reference.substr(at);
    std::string_view path = reference.substr(0, at);
    std::string registry = defaultRegistry;
    const std::size_t slash = path.find('/');
    if (slash != std::string_view::npos && IsRegistry(path.substr(0, slash))) {
        registry = path.substr(0, slash);
        registry = registry == "index.docker.io" ? defaultRegistry : registry;
        path.remove_prefix(slash + 1);
    }
    const bool isOfficial = registry == defaultRegistry && path.find('/') == std::string_view::npos;
    return std::string{registry}
        .append(isOfficial ? "/library/" : "/")
        .append(path)
        .append(HasTag(path) || !digest.empty() ? "" : ":latest")
        .append(digest);
}

const char* WhyNone(std::string_view text)
{
    constexpr char characters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-/:@";
    if (text.empty()) {
        return "is empty";
    }
    if (text.starts_with(digestKind)) {
        return "is a digest: that has a key of its own";
    }
    if (text.find_first_of("*?[") != std::string_view::npos) {
        return "is compared as it stands, it is no pattern";
    }
    const bool isPlain = text.find_first_not_of(characters) == std::string_view::npos && text.front() != '/' &&
                         text.back() != '/' && text.find("//") == std::string_view::npos;
    return isPlain ? nullptr : "is no reference of an image";
}

bool IsDigest(std::string_view text)
{
    constexpr std::size_t digits = 64;
    return text.starts_with(digestKind) && text.size() == digestKind.size() + digits &&
           text.find_first_not_of("0123456789abcdef", digestKind.size()) == std::string_view::npos;
}

}  // namespace SDK::ImageReference
