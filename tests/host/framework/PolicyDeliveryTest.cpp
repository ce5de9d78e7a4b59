// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <stdexcept>

#include "framework/Engine.h"
#include "host/framework/Support.h"

namespace {

using namespace FrameworkTest;
using testing::ElementsAre;

// Makes a policy named after the document, with a child for the task "first". "throw" and "refuse" do what they say.
class TestPolicies : public Framework::AbstractPolicyCallback {
public:
    explicit TestPolicies(Framework::Policy*& seen) : seen(seen) {}

    Framework::Policy* invoke(const std::string& /*name*/, const std::string& content,
                              Framework::Policy*& slot) const override
    {
        seen = slot;
        if (slot != nullptr) {
            slot->changed = true;
        }
        if (content == "throw") {
            throw std::runtime_error("bad document");
        }
        if (content == "refuse") {
            return nullptr;
        }
        auto* policy = new Framework::FeaturePolicy(content);
        policy->Add(std::make_unique<Framework::TaskPolicy>("first"));
        return policy;
    }

private:
    Framework::Policy*& seen;
};

class PolicyDeliveryTest : public testing::Test {
protected:
    void SetUp() override { module.RegisterPolicyCallback("id", new TestPolicies(seen)); }
    void TearDown() override
    {
        for (const char* name : {"first", "second", "third", "free"}) {
            module.UnRegisterTask(name);
        }
    }
    bool Apply(const std::string& content) { return engine.ApplyPolicy("id", "feature", content); }

    Framework::Engine engine;
    Framework::Module module{"module"};
    Framework::Module other{"other"};
    Framework::Policy* seen = nullptr;  // what the callback found in the slot
    Journal journal;
    JournalTask first{"first", journal, "feature"};
    JournalTask second{"second", journal, "feature"};
    JournalTask third{"third", journal, "another feature"};
    JournalTask free{"free", journal};
};

TEST_F(PolicyDeliveryTest, StartsTheFeaturesTasksOfEveryModuleWithTheirPolicies)
{
    module.RegisterTask(&first, false);
    module.RegisterTask(&third, false);
    other.RegisterTask(&second, false);
    EXPECT_THAT(engine.RunningTasks(), ElementsAre());
    std::shared_ptr<Framework::Message> early(Call([] { return 0; }));
    EXPECT_EQ(first.EnqueueMsg(early), -1) << "nobody would handle it";

    EXPECT_TRUE(Apply("one"));
    EXPECT_EQ(seen, nullptr);
    EXPECT_THAT(journal.WaitFor(2), testing::UnorderedElementsAre("first Init one/first", "second Init one"));
    EXPECT_THAT(engine.RunningTasks(), ElementsAre("first", "second"));
}

TEST_F(PolicyDeliveryTest, ANewPolicyRestartsTheFeaturesTasksAndNoOthers)
{
    module.RegisterTask(&free, false);
    module.RegisterTask(&first, false);
    Apply("one");
    journal.WaitFor(2);
    EXPECT_TRUE(Apply("two"));
    ASSERT_NE(seen, nullptr) << "the policy in force is shown to the callback";
    const auto lines = journal.WaitFor(4);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[2], "first UnInit");
    EXPECT_EQ(lines[3], "first Init two/first");
    EXPECT_THAT(engine.RunningTasks(), ElementsAre("free", "first"));
}

TEST_F(PolicyDeliveryTest, ARefusedDocumentLeavesThePolicyAndTheTasksAlone)
{
    module.RegisterTask(&first, false);
    Apply("one");
    journal.WaitFor(1);
    for (const char* content : {"refuse", "throw"}) {
        EXPECT_FALSE(Apply(content));
        ASSERT_NE(seen, nullptr);
        EXPECT_EQ(seen->Name(), "one");
        EXPECT_FALSE(seen->changed) << "no successor came";
    }
    EXPECT_FALSE(engine.ApplyPolicy("unknown id", "feature", "two"));
    EXPECT_THAT(journal.Lines(), ElementsAre("first Init one/first"));
}

TEST_F(PolicyDeliveryTest, ATaskThatComesAfterItsPolicyStartsAtOnce)
{
    EXPECT_TRUE(Apply("one"));
    module.RegisterTask(&first, false);
    EXPECT_THAT(journal.WaitFor(1), ElementsAre("first Init one/first"));
}

TEST_F(PolicyDeliveryTest, WhatWasSentBeforeAStopIsStillHandledAndWhatComesLaterRefused)
{
    module.RegisterTask(&first, false);
    Apply("one");
    journal.WaitFor(1);
    std::atomic<int> handled{0};
    first.SendAgileMsg(&first, Call([this, &handled] {
        for (int i = 0; i < 3; ++i) {
            first.SendAgileMsg(&first, Call([&handled] { return ++handled, 0; }));
        }
        first.cancel();
        return 0;
    }));
    journal.WaitFor(2);
    EXPECT_EQ(handled, 3);
    EXPECT_FALSE(first.IsAccepting());
    EXPECT_EQ(first.SendAgileMsg(&first, Call([] { return 0; })), 0);
    EXPECT_EQ(first.LostEvents(), 0U);
}

}  // namespace
