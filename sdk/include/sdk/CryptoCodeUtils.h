// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    // A new random UUID (RFC 4122, version 4) in its textual form of 36 characters, lower case. Any thread. Throws
    // nothing but std::bad_alloc.
    static std::string GenerateUUID();
};

}  // namespace SDK
