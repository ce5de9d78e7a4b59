// SPDX-License-Identifier: Apache-2.0
#include "host/container/ProcListing.h"

#include <gtest/gtest.h>

#include <map>

#include "tests/support/FakeSystem.h"

namespace Engine {
namespace {

// A kernel whose processes' control groups are other ones each time that it is asked.
class ProcListingTest : public testing::Test, public SyscallFilter {
protected:
    using Groups = std::map<int, std::uint64_t>;  // by process

    bool IsExcluded(int) const override { return false; }
    std::optional<Ticket> TicketOf(int) const override { return std::nullopt; }
    void Exclude(int, Ticket) override {}
    std::uint32_t NewIdentity() override { return 1; }
    std::vector<Listed> List(const Given&) override
    {
        std::vector<Listed> listed;
        for (const auto& [pid, groups] : answers.at(std::min(asked++, answers.size() - 1))) {
            listed.push_back({pid, pid, 1, groups, {}, {}});
        }
        if (thread != 0) {
            listed.push_back({20, thread, 1, 0, {}, {}});
        }
        return listed;
    }

    // The paths of the processes' control groups, in the processes' order.
    std::string Paths()
    {
        std::string paths;
        const ProcListing listing = ProcListing::Of(proc, this);
        for (const ProcListing::Process& process : listing.processes) {
            paths += listing.groups[process.groups].front().path + (process.kernelGroups == 0 ? "! " : " ");
        }
        return paths;
    }

    Support::FakeSystem proc;
    std::vector<Groups> answers;
    std::size_t asked = 0;
    int thread = 0;  // the process of one
};

TEST_F(ProcListingTest, WhatMovesOrEndsWhileItStandsForOthersIsNotTakenForThem)
{
    proc.Put(10, {{1, "sh"}, "/a", "", {}});  // it has moved by the time that /proc is asked
    proc.Put(11, {{1, "sh"}, "/b", "", {}});
    proc.Put(12, {{1, "sh"}, "/b", "", {}});
    answers = {{{10, 7}, {11, 7}, {12, 7}, {13, 8}}, {{10, 6}, {11, 7}, {12, 7}}};
    EXPECT_EQ(Paths(), "/a /b /b ");
    EXPECT_EQ(asked, 3U) << "until all is known";

    asked = 0;
    answers = {{{10, 7}, {11, 7}}, {{10, 6}, {11, 5}}, {{10, 7}, {11, 3}}, {{10, 2}, {11, 1}}};
    EXPECT_EQ(Paths(), "/a! /b! ") << "each by itself where it goes on without end";

    asked = 0;
    answers = {{{10, 7}, {11, 0}}};
    EXPECT_EQ(Paths(), "/a ") << "a zombie";
    thread = 11;
    EXPECT_EQ(Paths(), "/a /b! ") << "it has another thread";
}

}  // namespace
}  // namespace Engine
