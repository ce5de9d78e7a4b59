// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "ContainerEscapeFeaturePolicy.h"
#include "ContainerEscapeTaskPolicy.h"

namespace {

using Engine::ContainerEscapeFeaturePolicy;
using Engine::ContainerEscapeTaskPolicy;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr char section[] = R"({"highrisk_calls": ["execve", "nonsense", "waitpid", {"x": 1}],
    "host_directorys": ["/", "/etc*/*rw", "/no/such/path", "/etc*/*rwxaw", "/etc*/*q"]})";

TEST(FeaturePolicyTest, AWholeDocumentMakesBothTaskPolicies)
{
    ContainerEscapeFeaturePolicy policy;
    ASSERT_TRUE(policy.Parse(R"({"content": {"image_white_namelist": ["nginx", "redis:7", ["odd"]], "more": 1,
        "container_escape_detect_task": )" +
                             std::string{section} + "}}"));
    EXPECT_EQ(policy.Name(), "containerescape");
    EXPECT_EQ(policy.priority, 180);
    EXPECT_THAT(policy.GetContent(), UnorderedElementsAre("nginx", "redis:7"));

    const auto* detect = dynamic_cast<ContainerEscapeTaskPolicy*>(policy.Find("container_escape_detect_task"));
    ASSERT_NE(detect, nullptr);
    EXPECT_EQ(detect->priority, 180);
    EXPECT_THAT(detect->GetContent().highRiskCalls, UnorderedElementsAre("execve", "waitpid"));
    EXPECT_THAT(detect->GetContent().hostDirectories, UnorderedElementsAre("/", "/etc*/*rw"));

    const auto* check = dynamic_cast<Framework::TaskPolicy*>(policy.Find("container_escape_nss_task"));
    ASSERT_NE(check, nullptr);
    EXPECT_EQ(check->priority, 180);
    EXPECT_EQ(check->firstDelaySeconds, 10);
    EXPECT_EQ(check->periodSeconds, 30);
}

TEST(FeaturePolicyTest, WithoutTheTaskSectionTheWhitelistIsReplacedAllTheSame)
{
    ContainerEscapeFeaturePolicy policy;
    EXPECT_FALSE(policy.Parse(R"({"content": {"image_white_namelist": ["a"]}})"));
    EXPECT_THAT(policy.GetContent(), UnorderedElementsAre("a"));
    EXPECT_FALSE(policy.Parse(R"({"content": {"image_white_namelist": [],
        "container_escape_detect_task": {"highrisk_calls": []}}})"));
    EXPECT_THAT(policy.GetContent(), IsEmpty());
    EXPECT_THAT(policy.Children(), IsEmpty());
}

TEST(FeaturePolicyTest, WhatIsNoDocumentChangesNothing)
{
    ContainerEscapeFeaturePolicy policy;
    policy.Parse(R"({"content": {"image_white_namelist": ["a"]}})");
    for (const char* text : {"", "{", "[]", "null", R"({"content": []})", R"({"content": {}})",
                             R"({"image_white_namelist": ["b"]})", R"({"content": {"image_white_namelist": {}}})"}) {
        EXPECT_FALSE(policy.Parse(text)) << text;
        EXPECT_THAT(policy.GetContent(), UnorderedElementsAre("a")) << text;
    }
}

TEST(TaskPolicyTest, EachListIsReplacedByItself)
{
    ContainerEscapeTaskPolicy policy;
    ASSERT_TRUE(policy.Parse(section));
    EXPECT_FALSE(policy.Parse(R"({"host_directorys": []})"));
    EXPECT_THAT(policy.GetContent().highRiskCalls, UnorderedElementsAre("execve", "waitpid"));
    EXPECT_FALSE(policy.Parse(R"({"highrisk_calls": ["bind"]})"));
    EXPECT_THAT(policy.GetContent().highRiskCalls, UnorderedElementsAre("bind"));
    EXPECT_THAT(policy.GetContent().hostDirectories, UnorderedElementsAre("/", "/etc*/*rw"));
    EXPECT_EQ(policy.firstDelaySeconds, 0);
    EXPECT_EQ(policy.periodSeconds, 0);
}

}  // namespace
