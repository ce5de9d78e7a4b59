// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeUtil.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <string>

namespace Engine {
namespace {

TEST(ContainerEscapeUtilTest, PolicyTakesNamesOfBothNumberings)
{
    const struct {
        const char* name;
        int number;
        bool isAccepted;
    } rows[] = {
        {"read", 0, true},       {"open_by_handle_at", 304, true}, {"userfaultfd", 323, true}, {"waitpid", -1, true},
        {"fstatat64", -1, true}, {"execveat", -1, false},          {"bpf", -1, false},         {"READ", -1, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContainerEscapeUtil::GetSyscallNumber(row.name), row.number) << row.name;
        EXPECT_EQ(ContainerEscapeUtil::SyscallChecker(row.name), row.isAccepted) << row.name;
    }
}

TEST(ContainerEscapeUtilTest, NameDependsOnTheArchitecture)
{
    const struct {
        int number;
        const char* arch;
        const char* name;
    } rows[] = {
        {59, "c000003e", "execve"},
        {59, "0xC000003E", "execve"},
        {11, "40000003", "execve"},
        {11, "c000003e", "munmap"},
        {59, "0", ""},
        {59, "", ""},
        {59, "execve", ""},
        {-1, "c000003e", ""},
        {317, "c000003e", ""},
        {59, "1c000003e", ""},
        {59, "-3fffffc2", ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContainerEscapeUtil::NameOf(row.number, row.arch), row.name) << row.number << " " << row.arch;
    }
}

TEST(ContainerEscapeUtilTest, PathEntryIsSplitAtTheFirstSeparator)
{
    // Before each row the outputs hold "path" and "perm", which a refused entry must leave alone.
    const struct {
        const char* entry;
        bool isAccepted;
        const char* path;
        const char* perm;
    } rows[] = {
        {"/etc*/*rw", true, "/etc", "rw"},
        {"/etc", true, "/etc", "perm"},
        {"/e*/*rrrr", true, "/e", "rrrr"},
        {"/etc*/*", false, "path", "perm"},
        {"/e*/*rwxaw", false, "path", "perm"},
        {"/e*/*q", false, "path", "perm"},
        {"/e*/*r*/*w", false, "path", "perm"},
        {"*/*x", true, "", "x"},
        {"", true, "", "perm"},
    };
    for (const auto& row : rows) {
        std::string path = "path";
        std::string perm = "perm";
        EXPECT_EQ(ContainerEscapeUtil::GetPathAndPerm(row.entry, path, perm), row.isAccepted) << row.entry;
        EXPECT_EQ(path, row.path) << row.entry;
        EXPECT_EQ(perm, row.perm) << row.entry;
    }
}

TEST(ContainerEscapeUtilTest, PathEntryMustNameSomethingThatExists)
{
    char directory[] = "/tmp/pathcheckerXXXXXX";
    ASSERT_NE(::mkdtemp(directory), nullptr);
    const std::string path = directory;

    EXPECT_TRUE(ContainerEscapeUtil::PathChecker(path));
    EXPECT_TRUE(ContainerEscapeUtil::PathChecker(path + "*/*rw"));
    EXPECT_FALSE(ContainerEscapeUtil::PathChecker(path + "*/*z"));
    EXPECT_FALSE(ContainerEscapeUtil::PathChecker(""));
    EXPECT_FALSE(ContainerEscapeUtil::PathChecker("/" + std::string(2 * PATH_MAX, 'x')));
    ASSERT_EQ(::rmdir(directory), 0);
    EXPECT_FALSE(ContainerEscapeUtil::PathChecker(path + "*/*rw"));
}

TEST(ContainerEscapeUtilTest, DirectoryPrefixEndsAtASlash)
{
    const struct {
        const char* path;
        const char* dir;
        bool isBelow;
    } rows[] = {
        {"/var/lib/x", "/var/lib", true},
        {"/var/lib/x", "/var/lib/", true},
        {"/var/libx", "/var/lib", false},
        {"/a/b", "/a/b", false},
        {"/a/b/", "/a/b", true},
        {"/a/b/", "/a/b/", true},
        {"/a/b", "", true},
        {"a/b", "", false},
        {"", "", false},
        {"", "/", false},
        {"/", "/", true},
        {"/a", "/a/b", false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ContainerEscapeUtil::StartsWith(row.path, row.dir), row.isBelow) << row.path << " in " << row.dir;
    }
}

TEST(ContainerEscapeUtilTest, LoggerIsTheModules)
{
    Poco::Logger* logger = ContainerEscapeUtil::GetLoggerPtr();
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(logger->name(), "containerescape_module");
    EXPECT_EQ(ContainerEscapeUtil::GetLoggerPtr(), logger);
}

}  // namespace
}  // namespace Engine
