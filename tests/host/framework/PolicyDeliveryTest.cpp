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
        auto policy = std::make_unique<Framework::FeaturePolicy>(content);
        policy->Add(std::make_unique<Framework::TaskPolicy>("first"));
        return content == "refuse" ? nullptr : policy.release();
    }

private:
    Framework::Policy*& seen;
};

class PolicyDeliveryTest : public testing::Test {
protected:
    PolicyDeliveryTest()
    {
        module.RegisterPolicyCallback("id", new TestPolicies(seen));
        module.RegisterTask(&first, false);
    }
    bool Apply(const std::string& content) { return engine.ApplyPolicy("id", "feature", content); }

    Framework::Policy* seen = nullptr;  // what the callback found in the slot
    Journal journal;
    JournalTask first{"first", journal, "feature"};
    JournalTask late{"late", journal, "feature"};
    JournalTask stranger{"stranger", journal, "another feature"};
    Framework::Engine engine;
    Framework::Module module{"module"};  // goes first and stops the tasks
};

TEST_F(PolicyDeliveryTest, APolicyStartsTheFeaturesTasksANewOneRestartsThemARefusedOneLeavesThemAlone)
{
    module.RegisterTask(&stranger, false);
    EXPECT_EQ(first.SendAgileMsg(&first, Call([] { return 0; })), 0) << "no thread would handle it";
    EXPECT_TRUE(Apply("one"));
    EXPECT_EQ(seen, nullptr);
    journal.WaitFor(1);
    for (const char* content : {"refuse", "throw"}) {
        EXPECT_FALSE(Apply(content));
        ASSERT_NE(seen, nullptr) << "the policy in force is shown to the callback";
        EXPECT_EQ(seen->Name(), "one");
        EXPECT_FALSE(seen->changed) << "no successor came";
    }
    EXPECT_FALSE(engine.ApplyPolicy("unknown id", "feature", "two"));
    EXPECT_TRUE(Apply("two"));
    journal.WaitFor(3);
    module.RegisterTask(&late, false);
    EXPECT_THAT(journal.WaitFor(4),
                ElementsAre("first Init one/first", "first UnInit", "first Init two/first", "late Init two"));
    EXPECT_THAT(engine.RunningTasks(), ElementsAre("first", "late"));
}

TEST_F(PolicyDeliveryTest, WhatWasSentBeforeAStopIsStillHandledAndWhatComesLaterRefused)
{
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
