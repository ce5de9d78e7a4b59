// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    // A new random (version 4) UUID in its textual form of 36 characters.
    static std::string GenerateUUID();
};

}  // namespace SDK
