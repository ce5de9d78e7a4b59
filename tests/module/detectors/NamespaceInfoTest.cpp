// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "NamespaceSwitchCheckTask.h"

namespace Engine {
namespace {

using Namespaces = std::map<std::string, std::string>;

TEST(NamespaceInfoTest, FirstKindThatIsMissingOrDiffersIsNamed)
{
    const struct {
        const char* situation;
        Namespaces process;
        Namespaces container;
        const char* failed;  // empty: consistent
    } rows[] = {
        {"nothing known of the process", {}, {{"mnt", "1"}}, ""},
        {"the same", {{"mnt", "1"}, {"net", "2"}}, {{"mnt", "1"}, {"net", "2"}}, ""},
        {"kinds that only the container has", {{"net", "2"}}, {{"mnt", "1"}, {"net", "2"}}, ""},
        {"two differ", {{"net", "9"}, {"mnt", "9"}, {"ipc", "3"}}, {{"ipc", "3"}, {"mnt", "1"}, {"net", "2"}}, "mnt"},
        {"a kind that the container lacks", {{"user", "1"}, {"uts", "9"}}, {{"uts", "2"}}, "user"},
        {"a longer text", {{"pid", "pid:[12]"}}, {{"pid", "pid:[1]"}}, "pid"},
        {"container unknown altogether", {{"mnt", "1"}}, {}, "mnt"},
    };
    for (const auto& row : rows) {
        std::string nsName;
        const bool isConsistent = CheckNameSpaceInfo(row.process, row.container, nsName);
        EXPECT_EQ(isConsistent, *row.failed == '\0') << row.situation;
        EXPECT_EQ(nsName, row.failed) << row.situation;
    }
}

}  // namespace
}  // namespace Engine
