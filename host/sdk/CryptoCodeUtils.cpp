// SPDX-License-Identifier: Apache-2.0
#include "sdk/CryptoCodeUtils.h"

#include <Poco/UUIDGenerator.h>

namespace SDK {

std::string CryptoCodeUtils::GenerateUUID()
{
    return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
}

}  // namespace SDK
