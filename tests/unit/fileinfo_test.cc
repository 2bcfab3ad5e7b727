// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/fileinfo.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/Dates.h"
#include "Misc/proginfo.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

class FileInfoTest : public testing::Test {
protected:
    FileInfoTest() : file(directory.File("data"))
    {
        static char name[] = "/opt/orv/bin/orvd";
        static char* const argv[] = {name, nullptr};
        ProgInfo::Initialize(1, argv, nullptr, "2.0");
        WriteFile(file, "twelve bytes");
    }

    static void SetTime(const std::string& name, time_t seconds)
    {
        const struct timespec times[2] = {{seconds, 0}, {seconds, 999}};
        ASSERT_EQ(utimensat(AT_FDCWD, name.c_str(), times, 0), 0);
    }

    TemporaryDirectory directory;
    const std::string file;
};

// First, while ProgInfo::Initialize has not been called.
TEST(FileInfoBeforeInitialize, FailuresHaveAnEmptyProgramName)
{
    ASSERT_EQ(ProgInfo::GetProgramName(), nullptr);
    EXPECT_EQ(CaptureStderr([] { FileInfo::FileSize(-1); }), ": error in FileInfo::FileSize\n");
    EXPECT_EQ(CaptureStderr([] { FileInfo::FileMTime("/nosuch"); }), ": error in FileInfo::FileMTime (/nosuch)\n");
}

TEST_F(FileInfoTest, GivesTheSizeOfANamedFile)
{
    EXPECT_EQ(FileInfo::FileSize(file.c_str()), 12);
    EXPECT_EQ(CaptureStderr([&] {
                  EXPECT_EQ(FileInfo::FileSize(directory.File("nosuch").c_str()), 0);
                  EXPECT_EQ(FileInfo::FileSize(static_cast<const char*>(nullptr)), 0);
                  EXPECT_EQ(FileInfo::FileSize(""), 0);
              }),
              "");
}

TEST_F(FileInfoTest, GivesTheSizeOfADescriptorsFile)
{
    const int fd = open(file.c_str(), O_RDONLY);
    EXPECT_EQ(FileInfo::FileSize(fd), 12);
    close(fd);
    EXPECT_EQ(CaptureStderr([&] { EXPECT_EQ(FileInfo::FileSize(-1), 0); }), "orvd: error in FileInfo::FileSize\n");
}

TEST_F(FileInfoTest, GivesSizesBeyond32Bits)
{
    const off_t size = 5000000000;
    const long given = sizeof(long) == 4 ? LONG_MAX : static_cast<long>(size);
    ASSERT_EQ(truncate(file.c_str(), size), 0);
    EXPECT_EQ(FileInfo::FileSize(file.c_str()), given);
    const int fd = open(file.c_str(), O_RDONLY);
    EXPECT_EQ(FileInfo::FileSize(fd), given);
    close(fd);
}

TEST_F(FileInfoTest, GivesTimesBeyond32Bits)
{
    const time_t moment = 4102444799;
    const long given = sizeof(long) == 4 ? LONG_MAX : static_cast<long>(moment);
    SetTime(file, moment);
    EXPECT_EQ(FileInfo::FileStampTime(file.c_str()), given);
    EXPECT_STREQ(FileInfo::FileMTime(file.c_str()), std::string(Dates::GetDateTime(given)).c_str());
    EXPECT_EQ(FileInfo::FileSize(file.c_str()), 12) << "whatever its time";
}

TEST_F(FileInfoTest, GivesTheModificationTimeAsTextAndNumber)
{
    for (const long moment : {889279500L, 900000000L, 1L, 0L}) {
        SetTime(file, moment);
        EXPECT_STREQ(FileInfo::FileMTime(file.c_str()), std::string(Dates::GetDateTime(moment)).c_str());
        EXPECT_EQ(FileInfo::FileStampTime(file.c_str()), moment);
    }
}

TEST_F(FileInfoTest, AMissingFileHasNoModificationTime)
{
    const std::string missing = directory.File("nosuch");
    EXPECT_EQ(CaptureStderr([&] { EXPECT_STREQ(FileInfo::FileMTime(missing.c_str()), ""); }),
              "orvd: error in FileInfo::FileMTime (" + missing + ")\n");
    EXPECT_EQ(CaptureStderr([&] { EXPECT_EQ(FileInfo::FileStampTime(missing.c_str()), 0); }), "");
}

TEST_F(FileInfoTest, TheModificationTimeTextIsOverwrittenByTheNextCall)
{
    SetTime(file, 889279500);
    const char* text = FileInfo::FileMTime(file.c_str());
    const std::string first = text;
    Dates::GetDateTime(0L);
    EXPECT_EQ(text, first) << "a buffer of its own";
    SetTime(file, 889279501);
    EXPECT_EQ(FileInfo::FileMTime(file.c_str()), text);
    EXPECT_NE(text, first);
}

TEST_F(FileInfoTest, TellsWhetherAFileExists)
{
    EXPECT_EQ(FileInfo::FileExists(file.c_str()), 1);
    EXPECT_EQ(FileInfo::FileExists(directory.Path().c_str()), 1);
    EXPECT_EQ(FileInfo::FileExists(directory.File("nosuch").c_str()), 0);
    EXPECT_EQ(FileInfo::FileExists(""), 0);
    EXPECT_EQ(FileInfo::FileExists(nullptr), 0);
    ASSERT_EQ(symlink("nosuch", directory.File("dangling").c_str()), 0);
    EXPECT_EQ(FileInfo::FileExists(directory.File("dangling").c_str()), 0);
}

TEST_F(FileInfoTest, ThePathNameEndsBeforeTheLastSlash)
{
    EXPECT_STREQ(FileInfo::FilePathName("/a/b/c"), "/a/b");
    EXPECT_STREQ(FileInfo::FilePathName("/c"), "");
    EXPECT_STREQ(FileInfo::FilePathName("c"), "");
    EXPECT_STREQ(FileInfo::FilePathName("a/b/"), "a/b");
    EXPECT_STREQ(FileInfo::FilePathName("a//b"), "a/");
    EXPECT_STREQ(FileInfo::FilePathName("/"), "");
    EXPECT_STREQ(FileInfo::FilePathName(""), "");
    EXPECT_STREQ(FileInfo::FilePathName(nullptr), "");
}

TEST_F(FileInfoTest, TheBaseNameBeginsBehindTheLastSlash)
{
    EXPECT_STREQ(FileInfo::FileBaseName("/opt/orv/bin/orvd"), "orvd");
    EXPECT_STREQ(FileInfo::FileBaseName("orvd"), "orvd");
    EXPECT_STREQ(FileInfo::FileBaseName("/c"), "c");
    EXPECT_STREQ(FileInfo::FileBaseName("a/b/"), "");
    EXPECT_STREQ(FileInfo::FileBaseName("/"), "");
    EXPECT_STREQ(FileInfo::FileBaseName(""), "");
    EXPECT_STREQ(FileInfo::FileBaseName(nullptr), "");
}

TEST_F(FileInfoTest, PartsOfAResultCanBeTaken)
{
    EXPECT_STREQ(FileInfo::FilePathName(FileInfo::FilePathName("/a/b/c")), "/a");
    EXPECT_STREQ(FileInfo::FileBaseName(FileInfo::FileBaseName("/a/b/c")), "c");
    const std::string longer(100000, 'n');
    EXPECT_EQ(FileInfo::FileBaseName(("/x/" + longer).c_str()), longer);
    EXPECT_EQ(FileInfo::FilePathName((longer + "/x").c_str()), longer);
}

TEST_F(FileInfoTest, PathAndBaseNameLieInBuffersOfTheirOwn)
{
    const std::string base = FileInfo::FileBaseName("/a/b");
    const char* path = FileInfo::FilePathName("/a/b");
    EXPECT_STREQ(FileInfo::FileBaseName("/c/d"), "d");
    EXPECT_STREQ(path, "/a");
    EXPECT_EQ(base, "b");
}

TEST_F(FileInfoTest, ExpandsVariables)
{
    setenv("ORV_A1", "/opt/orv", 1);
    setenv("ORV_EMPTY", "", 1);
    setenv("ORV_NESTED", "$ORV_A1", 1);
    unsetenv("NOSUCH");
    const std::pair<const char*, const char*> cases[] = {
        {"$ORV_A1/bin", "/opt/orv/bin"},
        {"x/$ORV_A1", "x//opt/orv"},
        {"$ORV_A1$ORV_A1", "/opt/orv/opt/orv"},
        {"a$ORV_A1.log", "a/opt/orv.log"},
        {"a$ORV_A1-$ORV_A1-b", "a/opt/orv-/opt/orv-b"},
        {"[$ORV_EMPTY]", "[]"},
        {"$NOSUCH/x", "NOSUCH/x"},
        {"$NOSUCH$ORV_A1", "NOSUCH/opt/orv"},
        {"$ORV_A12", "ORV_A12"},
        {"$ORV_NESTED", "$ORV_A1"},
        {"a$", "a"},
        {"$", ""},
        {"$/x", "/x"},
        {"a$$b", "ab"},
        {"a${ORV_A1}", "a{ORV_A1}"},
        {"/plain/name", "/plain/name"},
        {"", ""},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(FileInfo::ExpandFileName(c.first), c.second) << c.first;
    EXPECT_STREQ(FileInfo::ExpandFileName(nullptr), "");
    // A value that begins with a tilde is not a home directory.
    setenv("ORV_TILDE", "~root", 1);
    EXPECT_STREQ(FileInfo::ExpandFileName("$ORV_TILDE/x"), "~root/x");
}

TEST_F(FileInfoTest, ExpandedNamesAreCutToThePathLimit)
{
    const size_t limit = PATH_MAX - 1;
    const std::string longName(PATH_MAX + 100, 'n');
    EXPECT_EQ(FileInfo::ExpandFileName(longName.c_str()), longName.substr(0, limit));
    EXPECT_EQ(FileInfo::ExpandFileName(("$" + longName).c_str()), longName.substr(0, limit));
    EXPECT_EQ(FileInfo::ExpandFileName(("~" + longName + "/x").c_str()), "~" + longName.substr(0, limit - 1));
    setenv("ORV_LONG", longName.c_str(), 1);
    EXPECT_EQ(FileInfo::ExpandFileName("a$ORV_LONG/b$ORV_LONG"), "a" + longName.substr(0, limit - 1));
    unsetenv("ORV_LONG");
}

TEST_F(FileInfoTest, TheExpandedNameIsOverwrittenByTheNextCallAndCanBeItsArgument)
{
    const char* first = FileInfo::ExpandFileName("/one");
    EXPECT_EQ(FileInfo::ExpandFileName("/two"), first);
    EXPECT_STREQ(first, "/two");
    setenv("ORV_SHORT", "s", 1);
    setenv("ORV_NESTED", "$ORV_SHORT/longer/than/before", 1);
    EXPECT_STREQ(FileInfo::ExpandFileName(FileInfo::ExpandFileName("$ORV_NESTED/x")), "s/longer/than/before/x");
}

TEST_F(FileInfoTest, ExpandsTheHomeOfAUser)
{
    const struct passwd* root = getpwnam("root");
    ASSERT_NE(root, nullptr);
    const std::string home = root->pw_dir;
    EXPECT_EQ(FileInfo::ExpandFileName("~root/x"), home + "/x");
    EXPECT_EQ(FileInfo::ExpandFileName("~root/"), home + "/");
    setenv("ORV_A1", "a", 1);
    EXPECT_EQ(FileInfo::ExpandFileName("~root/$ORV_A1/~root/x"), home + "/a/~root/x");
    EXPECT_STREQ(FileInfo::ExpandFileName("~nobodyhere/x"), "~nobodyhere/x");
    EXPECT_STREQ(FileInfo::ExpandFileName("x~root/y"), "x~root/y");
}

TEST_F(FileInfoTest, ATildeWithoutASlashIsKept)
{
    EXPECT_STREQ(FileInfo::ExpandFileName("~"), "~");
    EXPECT_STREQ(FileInfo::ExpandFileName("~root"), "~root");
}

// Runs `body` with `content` as the only password database, in a mount namespace of its own.
ChildResult WithPasswordFile(const TemporaryDirectory& directory, const std::string& content,
                             const std::function<void()>& body)
{
    const std::string passwords = directory.File("passwd"), order = directory.File("nsswitch.conf");
    WriteFile(passwords, content);
    WriteFile(order, "passwd: files\n"); // other sources may make up an entry for root
    return RunInChild([&] {
        ChildNeeds(unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount(passwords.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0 &&
                   mount(order.c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr) == 0);
        body();
    });
}

TEST_F(FileInfoTest, ExpandsTheHomeOfTheLogin)
{
    const char* login = getlogin();
    const std::string user = login != nullptr ? login : "ops";
    const std::string entry = user + ":x:" + std::to_string(getuid()) + ":0::/home/ops:/bin/sh\n";
    const ChildResult known = WithPasswordFile(directory, entry, [] { puts(FileInfo::ExpandFileName("~/x")); });
    if (known.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no mount namespaces here";
    EXPECT_EQ(known.out, "/home/ops/x\n");
}

TEST_F(FileInfoTest, WithoutAnEntryTheLoginIsKept)
{
    const ChildResult unknown = WithPasswordFile(directory, "x:x:77:77::/home/x:/bin/sh\n", [] {
        const char* login = getlogin();
        printf("%s|%s", login != nullptr ? login : "", FileInfo::ExpandFileName("~/x"));
    });
    if (unknown.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no mount namespaces here";
    const std::string login = unknown.out.substr(0, unknown.out.find('|'));
    EXPECT_EQ(unknown.out, login + "|~" + login + "/x");
}

} // namespace
