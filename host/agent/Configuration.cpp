// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Configuration.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "host/agent/Console.h"
#include "host/agent/Document.h"

namespace Agent {

namespace {

// How many insertions, deletions and exchanges of a character make one text of the other (Levenshtein).
std::size_t Distance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t exchanged = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({exchanged, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

// A text or an integer.
std::string ValueOf(const Document& document, const Json::Value& value, const std::string& key)
{
    if (value.isInt64() || value.isUInt64()) {
        return value.asString();
    }
    document.Demand(value, Json::stringValue, key);
    return value.asString();
}

}  // namespace

std::vector<Setting> ReadConfiguration(const std::string& path,
                                       const std::function<bool(const std::string& key)>& isFlag,
                                       std::vector<std::string>& warnings)
{
    std::vector<Setting> settings;
    try {
        const Document document(Document::Read("configuration", path, warnings));
        for (const std::string& key : document.Root().getMemberNames()) {
            const Json::Value& value = document.Root()[key];
            const std::string place = document.PlaceOf(value);
            Setting setting{key, {}, {}, path};
            setting.place.append(", ").append(place);
            bool isSwitch = false;
            try {
                isSwitch = isFlag(key);
            } catch (const BadInput& problem) {
                throw BadInput(place + ": " + problem.what());
            }
            if (isSwitch) {
                document.Demand(value, Json::booleanValue, key);
                setting.word = value.asBool() ? "--" + key : "";
                setting.value = value.asBool() ? "true" : "false";
            } else {
                setting.value = ValueOf(document, value, key);
                setting.word = "--" + key + "=" + setting.value;
            }
            settings.push_back(std::move(setting));
        }
    } catch (const BadInput& problem) {
        throw BadInput("configuration " + path + ": " + problem.what());
    }
    return settings;
}

std::string Nearest(const std::string& name, const std::vector<std::string>& names)
{
    const auto nearest = std::min_element(names.begin(), names.end(), [&name](const auto& a, const auto& b) {
        return Distance(name, a) < Distance(name, b);
    });
    const bool isSimilar =
        nearest != names.end() && Distance(name, *nearest) <= std::max<std::size_t>(2, name.size() / 3);
    return isSimilar ? *nearest : std::string{};
}

}  // namespace Agent
