// SPDX-License-Identifier: Apache-2.0
// References of container images: [REGISTRY/]PATH[:TAG][@DIGEST]. Pure.
#pragma once

#include <string>
#include <string_view>

namespace SDK::ImageReference {

// With all that engines leave out: "nginx" is "docker.io/library/nginx:latest". What comes before the first '/' is a
// registry if it holds a '.' or a ':' or is "localhost", as engines read it. Two references name the same image at the
// same time exactly if these are equal.
std::string Canonical(std::string_view reference);

// Why a text is no reference that an engine takes; null: it is one.
const char* WhyNone(std::string_view text);

// "sha256:" and 64 lower-case hexadecimal digits.
bool IsDigest(std::string_view text);

}  // namespace SDK::ImageReference
