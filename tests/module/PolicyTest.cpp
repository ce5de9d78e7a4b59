// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <climits>
#include <map>

#include "ContainerEscapeFeaturePolicy.h"
#include "ContainerEscapeTaskPolicy.h"
#include "ContainerEscapeUtil.h"

namespace {

using Engine::ContainerEscapeTaskPolicy;
using Engine::ContainerEscapeUtil;
using testing::UnorderedElementsAre;

TEST(PolicyTest, AWholeDocumentMakesBothTaskPoliciesAndAPartReplacesWhatItHolds)
{
    Engine::ContainerEscapeFeaturePolicy policy;
    ASSERT_TRUE(policy.Parse(R"({"content": {"image_white_namelist": ["nginx", "redis:7", ["odd"]], "more": 1,
        "container_escape_detect_task": {"highrisk_calls": ["bind"], "host_directorys": []}}})"));
    EXPECT_THAT(policy.GetContent(), UnorderedElementsAre("nginx", "redis:7"));
    EXPECT_NE(dynamic_cast<ContainerEscapeTaskPolicy*>(policy.Find("container_escape_detect_task")), nullptr);
    const auto* check = dynamic_cast<Framework::TaskPolicy*>(policy.Find("container_escape_nss_task"));
    ASSERT_NE(check, nullptr);
    EXPECT_TRUE(check->firstDelaySeconds == 10 && check->periodSeconds == 30);

    EXPECT_FALSE(policy.Parse(R"({"content": {"image_white_namelist": ["a"]}})"));
    for (const char* text : {"", "{", "[]", "null", R"({"content": []})", R"({"image_white_namelist": ["b"]})",
                             R"({"content": {"image_white_namelist": {}}})"}) {
        EXPECT_FALSE(policy.Parse(text)) << text;
        EXPECT_THAT(policy.GetContent(), UnorderedElementsAre("a")) << text;
    }
}

TEST(PolicyTest, EachListOfASectionIsReplacedByItselfWithoutItsBadEntries)
{
    ContainerEscapeTaskPolicy policy;
    ASSERT_TRUE(policy.Parse(R"({"highrisk_calls": ["execve", "nonsense", "waitpid", {"x": 1}],
        "host_directorys": ["/", "/etc*/*rw", "/no/such/path", "/etc*/*rwxaw", "/etc*/*q"]})"));
    EXPECT_THAT(policy.GetContent().highRiskCalls, UnorderedElementsAre("execve", "waitpid"));
    EXPECT_FALSE(policy.Parse(R"({"highrisk_calls": ["bind"]})"));
    EXPECT_THAT(policy.GetContent().highRiskCalls, UnorderedElementsAre("bind"));
    EXPECT_THAT(policy.GetContent().hostDirectories, UnorderedElementsAre("/", "/etc*/*rw"));
    for (const auto& [value, isContainer] : std::map<std::string, bool>{{R"("container")", true},
                                                                        {R"("thread")", false},
                                                                        {R"("Container")", false},
                                                                        {R"(["container"])", false}}) {
        policy.Parse(R"({"highrisk_calls": [], "host_directorys": ["/no/such", "/e*/*q"], "scope": )" + value + "}");
        EXPECT_EQ(policy.GetContent().scope == Engine::Scope::Container, isContainer) << value;
        EXPECT_EQ(policy.GetContent().hostDirectories.size(), isContainer ? 1U : 0U) << "a later path is waited for";
    }
    std::string path = "untouched";
    std::string perm = path;
    EXPECT_FALSE(ContainerEscapeUtil::GetPathAndPerm("/e*/*rwxaw", path, perm));
    EXPECT_TRUE(path == "untouched" && ContainerEscapeUtil::GetPathAndPerm("/e", path, perm));
    EXPECT_EQ(path + " " + perm, "/e untouched");
    EXPECT_FALSE(ContainerEscapeUtil::PathChecker("/" + std::string(2 * PATH_MAX, 'x')));
}

}  // namespace
