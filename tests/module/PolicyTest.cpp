// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <climits>

#include "ContainerEscapeFeaturePolicy.h"
#include "ContainerEscapeTaskPolicy.h"
#include "ContainerEscapeUtil.h"

namespace {

using Engine::ContainerEscapeFeaturePolicy;
using Engine::ContainerEscapeTaskPolicy;
using Engine::ContainerEscapeUtil;
using testing::UnorderedElementsAre;

constexpr char section[] = R"({"highrisk_calls": ["execve", "nonsense", "waitpid", {"x": 1}],
    "host_directorys": ["/", "/etc*/*rw", "/no/such/path", "/etc*/*rwxaw", "/etc*/*q"]})";

TEST(PolicyTest, AWholeDocumentMakesBothTaskPolicies)
{
    ContainerEscapeFeaturePolicy policy;
    ASSERT_TRUE(policy.Parse(R"({"content": {"image_white_namelist": ["nginx", "redis:7", ["odd"]], "more": 1,
        "container_escape_detect_task": )" +
                             std::string{section} + "}}"));
    EXPECT_THAT(policy.GetContent(), UnorderedElementsAre("nginx", "redis:7"));
    EXPECT_NE(dynamic_cast<ContainerEscapeTaskPolicy*>(policy.Find("container_escape_detect_task")), nullptr);
    const auto* check = dynamic_cast<Framework::TaskPolicy*>(policy.Find("container_escape_nss_task"));
    ASSERT_NE(check, nullptr);
    EXPECT_TRUE(check->firstDelaySeconds == 10 && check->periodSeconds == 30);
}

TEST(PolicyTest, WithoutTheTaskSectionTheWhitelistIsReplacedAllTheSame)
{
    ContainerEscapeFeaturePolicy policy;
    EXPECT_FALSE(policy.Parse(R"({"content": {"image_white_namelist": ["a"]}})"));
    for (const char* text : {"", "{", "[]", "null", R"({"content": []})", R"({"image_white_namelist": ["b"]})",
                             R"({"content": {"image_white_namelist": {}}})"}) {
        EXPECT_FALSE(policy.Parse(text)) << text;
        EXPECT_THAT(policy.GetContent(), UnorderedElementsAre("a")) << text;
    }
}

TEST(PolicyTest, EachListIsReplacedByItself)
{
    ContainerEscapeTaskPolicy policy;
    ASSERT_TRUE(policy.Parse(section));
    EXPECT_THAT(policy.GetContent().highRiskCalls, UnorderedElementsAre("execve", "waitpid"));
    EXPECT_FALSE(policy.Parse(R"({"highrisk_calls": ["bind"]})"));
    EXPECT_THAT(policy.GetContent().highRiskCalls, UnorderedElementsAre("bind"));
    EXPECT_THAT(policy.GetContent().hostDirectories, UnorderedElementsAre("/", "/etc*/*rw"));
}

TEST(PolicyTest, PathEntryIsSplitAtTheFirstSeparatorAndABadOneLeftAlone)
{
    // The outputs hold "path" and "perm" before each row.
    for (const auto& [entry, split] : std::map<std::string, std::string>{{"/etc", "/etc perm"},
                                                                         {"/e*/*rrrr", "/e rrrr"},
                                                                         {"*/*x", " x"},
                                                                         {"/e*/*rwxaw", "path perm"},
                                                                         {"/e*/*r*/*w", "path perm"},
                                                                         {"/e*/*", "path perm"}}) {
        std::string path = "path";
        std::string perm = "perm";
        EXPECT_EQ(ContainerEscapeUtil::GetPathAndPerm(entry, path, perm), split != "path perm") << entry;
        EXPECT_EQ(path + " " + perm, split) << entry;
    }
    EXPECT_FALSE(ContainerEscapeUtil::PathChecker("/" + std::string(2 * PATH_MAX, 'x')));
}

}  // namespace
