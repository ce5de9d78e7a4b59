// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Configuration.h"

#include <utility>

#include "host/agent/Console.h"
#include "host/agent/Document.h"
#include "host/agent/Nearest.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

// A text or an integer.
std::string ValueOf(const Document& document, const Json::Value& value, const std::string& key)
{
    if (value.isInt64() || value.isUInt64()) {
        return value.asString();
    }
    document.Demand(value, Json::stringValue, key);
    return value.asString();
}

std::vector<std::string> KeysOf(const std::map<std::string, OptionKind>& options)
{
    std::vector<std::string> keys{exceptionsKey};
    for (const auto& [key, kind] : options) {
        keys.push_back(key);
    }
    return keys;
}

// Without its place.
Setting SettingOf(const Document& document, const Json::Value& value, const std::string& key, OptionKind kind)
{
    const std::string option = "--" + key;
    Setting setting{key, {}, {}, {}};
    if (kind == OptionKind::Flag) {
        document.Demand(value, Json::booleanValue, key);
        setting.words.resize(value.asBool() ? 1 : 0, option);
        setting.value = value.asBool() ? "true" : "false";
    } else if (kind == OptionKind::List && value.isArray() && !value.empty()) {
        for (const Json::Value& each : value) {
            document.Demand(each, Json::stringValue, key);
            setting.words.push_back(std::string{option}.append("=").append(each.asString()));
            setting.value.append(setting.value.empty() ? "" : ", ").append(each.asString());
        }
    } else {
        setting.value = ValueOf(document, value, key);
        setting.words.push_back(std::string{option}.append("=").append(setting.value));
    }
    return setting;
}

}  // namespace

Configuration ReadConfiguration(const std::string& path, const std::map<std::string, OptionKind>& options,
                                std::vector<std::string>& warnings)
{
    Configuration configuration;
    try {
        const Document document(Document::Read("configuration", path, warnings));
        for (const std::string& key : document.Root().getMemberNames()) {
            const Json::Value& value = document.Root()[key];
            const std::string place = document.PlaceOf(value);
            const auto option = options.find(key);
            Setting setting{key, {}, {}, {}};
            if (key == exceptionsKey) {
                configuration.exceptions = ParseExceptions(document, value);
                setting.value = SDK::JsonUtils::JsonToString(ToJson(configuration.exceptions));
            } else if (option == options.end()) {
                throw BadInput(std::string{place}
                                   .append(": unknown key \"")
                                   .append(key)
                                   .append("\"")
                                   .append(NearestInWords(key, KeysOf(options))));
            } else {
                setting = SettingOf(document, value, key, option->second);
            }
            setting.place = std::string{path}.append(", ").append(place);
            configuration.settings.push_back(std::move(setting));
        }
    } catch (const BadInput& problem) {
        throw BadInput("configuration " + path + ": " + problem.what());
    }
    return configuration;
}

}  // namespace Agent
