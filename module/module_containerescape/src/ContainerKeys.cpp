// SPDX-License-Identifier: Apache-2.0
#include "ContainerKeys.h"

#include <cstdlib>
#include <utility>

#include "sdk/TimeUtils.h"

namespace Engine {
namespace {

constexpr std::int64_t roundSeconds = 3600;

}  // namespace

// False: the id is another kind of text. No two ids have the same digits.
bool ContainerKeys::Parse(const std::string& id, Digits& digits)
{
    constexpr std::size_t digitsOfNumber = 16;
    if (id.size() != digits.size() * digitsOfNumber) {
        return false;
    }
    bool isNumber = true;
    const char* text = id.data();
    for (std::uint64_t& number : digits) {
        number = 0;
        for (std::size_t i = 0; i < digitsOfNumber; ++i, ++text) {
            const bool isLetter = *text >= 'a' && *text <= 'f';
            isNumber = isNumber && (isLetter || (*text >= '0' && *text <= '9'));
            number = number << 4U | static_cast<std::uint64_t>(*text - (isLetter ? 'a' - 10 : '0'));
        }
    }
    return isNumber;
}

ContainerKeys::Container& ContainerKeys::Find(const std::string& containerId)
{
    Digits digits{};
    const Container made{next, true};
    Container& found = Parse(containerId, digits) ? numbered.try_emplace(digits, made).first->second
                                                  : named.try_emplace(containerId, made).first->second;
    next += found.key == next ? 1 : 0;
    return found;
}

ScopeKey ContainerKeys::Of(const std::string& containerId)
{
    if (last == nullptr || lastId != containerId) {
        last = &Find(containerId);
        lastId = containerId;
    }
    last->isUsed = true;
    return last->key;
}

// Two rounds without an event between them end a key. They are an hour apart unless there are too many containers.
std::vector<ScopeKey> ContainerKeys::DropIdle()
{
    if (Size() <= keptContainers) {
        return {};
    }
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    if (Size() <= mostContainers && std::abs(now - lastRound) < roundSeconds) {
        return {};
    }
    lastRound = now;
    last = nullptr;
    std::vector<ScopeKey> dropped;
    const auto dropFrom = [&dropped](auto& containers) {
        for (auto entry = containers.begin(); entry != containers.end();) {
            if (std::exchange(entry->second.isUsed, false)) {
                ++entry;
            } else {
                dropped.push_back(entry->second.key);
                entry = containers.erase(entry);
            }
        }
    };
    dropFrom(numbered);
    dropFrom(named);
    return dropped;
}

}  // namespace Engine
