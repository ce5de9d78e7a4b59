// SPDX-License-Identifier: Apache-2.0
#include "sdk/CryptoCodeUtils.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace SDK {

namespace {

using Bytes = std::array<unsigned char, 16>;

// getrandom(2): up to 256 bytes come whole once the kernel's pool is initialised; before, a signal may interrupt.
void FillRandom(Bytes& bytes)
{
    while (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
    }
}

}  // namespace

std::string CryptoCodeUtils::GenerateUUID()
{
    constexpr char digits[] = "0123456789abcdef";
    Bytes bytes{};
    FillRandom(bytes);
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0FU) | 0x40U);  // version 4, RFC 4122 section 4.4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3FU) | 0x80U);  // variant
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += digits[bytes[i] >> 4U];
        text += digits[bytes[i] & 0x0FU];
    }
    return text;
}

}  // namespace SDK
