// SPDX-License-Identifier: Apache-2.0
// Writing JSON as one line of ASCII. The library's writer makes the same text, but builds a writer, a stream and a
// string for each value: several times the cost, in a place where an attacker chooses how often it is paid.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

namespace SDK::JsonText {

// Appends `value` without blanks, members in the order of their keys, numbers as the library writes them. Everything
// beyond ASCII and all control characters are escaped. REQUIRES: texts and keys are UTF-8. Recursive: as deep as the
// value is.
void Append(std::string& out, const Json::Value& value);

// The text of a string value; refers to `value`.
std::string_view TextOf(const Json::Value& value);

// The key that the iterator of an object stands on; refers to the object.
std::string_view KeyOf(const Json::Value::const_iterator& item);

}  // namespace SDK::JsonText
