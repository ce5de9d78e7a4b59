// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace Agent {

// What may have been meant by a word that is none of those known: `, is "WORD" meant?`. Empty when none is similar.
std::string NearestInWords(const std::string& word, const std::vector<std::string>& known);

}  // namespace Agent
