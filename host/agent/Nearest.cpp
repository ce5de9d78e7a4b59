// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Nearest.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

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

}  // namespace

std::string NearestInWords(const std::string& word, const std::vector<std::string>& known)
{
    const auto nearest = std::min_element(known.begin(), known.end(), [&word](const auto& a, const auto& b) {
        return Distance(word, a) < Distance(word, b);
    });
    const bool isSimilar =
        nearest != known.end() && Distance(word, *nearest) <= std::max<std::size_t>(2, word.size() / 3);
    return isSimilar ? std::string{", is \""}.append(*nearest).append("\" meant?") : std::string{};
}

}  // namespace Agent
