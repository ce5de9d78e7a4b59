// SPDX-License-Identifier: Apache-2.0
// An operator's JSON document: what is wrong in it is said with its place.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Agent {

class Document {
public:
    static constexpr std::size_t maxBytes = 1U << 20U;

    // The text of a file. Throws BadInput: it is no readable regular file, or larger than maxBytes. Adds to `warnings`
    // what is doubtful; `kind` says there what the file is.
    static std::string Read(const char* kind, const std::string& path, std::vector<std::string>& warnings);

    // Throws BadInput with place and reason: the text is not JSON, or no object.
    explicit Document(std::string text);

    const std::string& Text() const { return text; }
    const Json::Value& Root() const { return root; }

    // "line 3, column 7", counted in bytes, where a value of the document begins.
    std::string PlaceOf(const Json::Value& value) const;

    // Throws BadInput when the value is of another type. `name`: what it is called in the message.
    void Demand(const Json::Value& value, Json::ValueType type, const std::string& name) const;

private:
    std::string text;
    Json::Value root;
    std::vector<std::ptrdiff_t> lineStarts{0};
};

}  // namespace Agent
