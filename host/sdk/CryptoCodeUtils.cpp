// SPDX-License-Identifier: Apache-2.0
#include "sdk/CryptoCodeUtils.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>
#include <sys/random.h>

#include <array>
#include <cstdint>

namespace SDK {

// The library's generator opens /dev/urandom for each: an alarm must not hang on a free descriptor. It stands in where
// a filter of system calls refuses getrandom(2), which else gives so few bytes whole.
std::string CryptoCodeUtils::GenerateUUID()
{
    std::array<std::uint8_t, 16> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4, random (RFC 4122, section 4.4)
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the variant of that document
    Poco::UUID uuid;
    uuid.copyFrom(reinterpret_cast<const char*>(bytes.data()));
    return uuid.toString();
}

}  // namespace SDK
