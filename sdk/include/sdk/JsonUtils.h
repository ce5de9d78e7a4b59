// SPDX-License-Identifier: Apache-2.0
// JSON over jsoncpp values. Nothing here throws on bad input.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

namespace SDK {

class JsonUtils {
public:
    // Strict JSON (no comments, no trailing text, unique keys) whose root is an object or an array, nested at most 100
    // levels deep. 0: parsed; -1: not such a document, `root` is then null.
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& root);

    // The same; on failure `error` says what is wrong and where ("line 3, column 7: ...").
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& root, std::string& error);

    // Copies member `key` of an object into `out`. False, with `out` untouched, when `value` is no object, has no such
    // member, or the member is no array (no object, respectively).
    static bool GetArrayValue(const Json::Value& value, const char* key, Json::Value& out);
    static bool GetSubobjectValue(const Json::Value& value, const char* key, Json::Value& out);

    // One line without indentation. Control characters and everything beyond ASCII are written as escapes; bytes that
    // are not UTF-8 become the replacement character.
    static std::string JsonToString(const Json::Value& value);
};

}  // namespace SDK
