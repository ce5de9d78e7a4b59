// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeUtil.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace Engine {
namespace {

TEST(ContainerEscapeUtilTest, PathEntryIsSplitAtTheFirstSeparator)
{
    // Before each row the outputs hold "path" and "perm", which a refused entry must leave alone.
    const struct {
        const char* entry;
        bool isAccepted;
        const char* path;
        const char* perm;
    } rows[] = {
        {"/etc", true, "/etc", "perm"},        {"/e*/*rrrr", true, "/e", "rrrr"},     {"*/*x", true, "", "x"},
        {"/e*/*rwxaw", false, "path", "perm"}, {"/e*/*r*/*w", false, "path", "perm"}, {"/e*/*", false, "path", "perm"},
    };
    for (const auto& row : rows) {
        std::string path = "path";
        std::string perm = "perm";
        EXPECT_EQ(ContainerEscapeUtil::GetPathAndPerm(row.entry, path, perm), row.isAccepted) << row.entry;
        EXPECT_EQ(path + " " + perm, std::string{row.path} + " " + row.perm) << row.entry;
    }
    EXPECT_FALSE(ContainerEscapeUtil::PathChecker("/" + std::string(2 * PATH_MAX, 'x')));
}

}  // namespace
}  // namespace Engine
