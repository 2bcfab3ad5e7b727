// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/proginfo.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>

#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/fileinfo.h"
#include "svr4/systeminfo.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

const char Dashes[] = "---------------------------------------------------\n"; // 51 of them

void Initialize(const char* name, const char* version)
{
    static char text[PATH_MAX + 8000];
    static char* argv[2];
    argv[0] = nullptr;
    if (name != nullptr) {
        strcpy(text, name);
        argv[0] = text;
    }
    ProgInfo::Initialize(1, argv, nullptr, version);
}

std::string Show()
{
    std::ostringstream text;
    ProgInfo::ShowProgramInfo(text);
    EXPECT_TRUE(text.good());
    return text.str();
}

std::string Node() { return ProgInfo::GetNodeNameLongVersion(); }

struct utsname Host()
{
    struct utsname host;
    uname(&host);
    return host;
}

std::string User(uid_t uid)
{
    const struct passwd* entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : "";
}

std::string Group(gid_t gid)
{
    const struct group* entry = getgrgid(gid);
    return entry != nullptr ? entry->gr_name : "";
}

std::string HostLines()
{
    const struct utsname host = Host();
    std::ostringstream text;
    text << "Login Name:        " << User(getuid()) << "\n"
         << "uid:               " << getuid() << " " << User(getuid()) << "\n"
         << "euid:              " << geteuid() << " " << User(geteuid()) << "\n"
         << "gid:               " << getgid() << " " << Group(getgid()) << "\n"
         << "egid:              " << getegid() << " " << Group(getegid()) << "\n"
         << "NodeName:          " << host.nodename << "\n"
         << "SystemName:        " << host.sysname << "\n"
         << "Unix Release:      " << host.release << "\n"
         << "Unix Version:      " << host.version << "\n"
         << "Machine:           " << host.machine << "\n"
         << "Architecture:      " << host.machine << "\n"
         << "Current Dynamic Memory Max: N\n";
    return text.str();
}

// The report with the heap size, which changes as it is written, replaced by N.
std::string ShowWithoutHeapSize()
{
    std::string text = Show();
    const std::string label = "Memory Max: ";
    const size_t at = text.find(label) + label.size();
    return text.replace(at, text.find_first_not_of("0123456789", at) - at, "N");
}

// The facts of the host are read once in a process: these come first, and each child is the first to ask.
// Prints what `body` prints on a host called n1 whose hosts file is `hosts`.
ChildResult OnNode(const char* hosts, const std::function<void()>& body)
{
    const std::string earlier = ReadFile("/etc/hosts");
    WriteFile("/etc/hosts", hosts);
    ChildResult child = RunInChild([&] {
        ChildNeeds(unshare(CLONE_NEWUTS) == 0 && sethostname("n1", 2) == 0);
        body();
    });
    WriteFile("/etc/hosts", earlier);
    return child;
}

class ProgInfoOnANode : public testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a private host name and hosts file";
    }
    static void PrintLongVersions()
    {
        Initialize("/opt/orv/bin/orvd", "$Revision: 1.7 $");
        puts(ProgInfo::GetLongVersion());
        Initialize("/opt/orv/bin/orvd", "2.0");
        puts(ProgInfo::GetLongVersion());
        puts(ProgInfo::GetNodeName());
        puts(ProgInfo::GetNodeNameLongVersion());
    }
};

TEST_F(ProgInfoOnANode, WithoutATranslationTheNodeNameStands)
{
    const ChildResult child = OnNode("127.0.0.1 localhost\n", PrintLongVersions);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out, "/opt/orv/bin/orvd: v1.7 (P) [n1]\n"
                         "/opt/orv/bin/orvd: v2.0(P) [n1]\n"
                         "n1\n"
                         "n1\n");
}

TEST_F(ProgInfoOnANode, TheLongVersionHasTheTranslatedName)
{
    const ChildResult child = OnNode("10.9.8.7 n1.kelvaro.example n1\n", PrintLongVersions);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out, "/opt/orv/bin/orvd: v1.7 (P) [n1.kelvaro.example]\n"
                         "/opt/orv/bin/orvd: v2.0(P) [n1.kelvaro.example]\n"
                         "n1\n"
                         "n1.kelvaro.example\n");
}

// Before any call of ProgInfo::Initialize in this process.
TEST(ProgInfoBeforeInitialize, NamesAreNullAndTextsEmpty)
{
    ASSERT_EQ(ProgInfo::GetFullProgramName(), nullptr);
    EXPECT_EQ(ProgInfo::GetProgramName(), nullptr);
    EXPECT_EQ(ProgInfo::GetVersion(), nullptr);
    EXPECT_EQ(ProgInfo::Getargc(), 0);
    EXPECT_EQ(ProgInfo::Getargv(), nullptr);
    EXPECT_EQ(ProgInfo::GetLongVersion(), ": v(P) [" + Node() + "]");
    EXPECT_EQ(ShowWithoutHeapSize(), std::string(Dashes) + "Program Information\n" + Dashes +
                                         "Program Name:      \nFull Program Name: \nVersion:           \n"
                                         "Long Version:      : v(P) [" +
                                         Node() + "]\n" + HostLines() + Dashes + "Command Line Parameters\n" + Dashes +
                                         Dashes + Dashes + "Environment:\n" + Dashes + Dashes);
}

TEST(ProgInfoTest, KnowsNamesAndVersion)
{
    Initialize("/opt/orv/bin/orvd", "2.0");
    EXPECT_STREQ(ProgInfo::GetFullProgramName(), "/opt/orv/bin/orvd");
    EXPECT_STREQ(ProgInfo::GetProgramName(), "orvd");
    EXPECT_STREQ(ProgInfo::GetVersion(), "2.0");
    FileInfo::FileBaseName("/other/name");
    EXPECT_STREQ(ProgInfo::GetProgramName(), "orvd") << "the base name is a copy";
}

TEST(ProgInfoTest, ASecondInitializeReplacesAll)
{
    Initialize("/opt/orv/bin/orvd", "2.0");
    Initialize("orvsys", "3.1");
    EXPECT_STREQ(ProgInfo::GetFullProgramName(), "orvsys");
    EXPECT_STREQ(ProgInfo::GetProgramName(), "orvsys");
    EXPECT_STREQ(ProgInfo::GetVersion(), "3.1");
    Initialize(nullptr, nullptr);
    EXPECT_EQ(ProgInfo::GetFullProgramName(), nullptr);
    EXPECT_EQ(ProgInfo::GetProgramName(), nullptr);
    EXPECT_EQ(ProgInfo::GetVersion(), nullptr);
    ProgInfo::Initialize(0, nullptr, nullptr, "4");
    EXPECT_EQ(ProgInfo::GetFullProgramName(), nullptr);
    EXPECT_STREQ(ProgInfo::GetVersion(), "4");
}

TEST(ProgInfoTest, InitializeTakesItsOwnTexts)
{
    Initialize("/opt/orv/bin/orvd", "2.0");
    char* const argv[] = {const_cast<char*>(ProgInfo::GetFullProgramName()), nullptr};
    ProgInfo::Initialize(1, argv, nullptr, ProgInfo::GetVersion());
    EXPECT_STREQ(ProgInfo::GetFullProgramName(), "/opt/orv/bin/orvd");
    EXPECT_STREQ(ProgInfo::GetProgramName(), "orvd");
    EXPECT_STREQ(ProgInfo::GetVersion(), "2.0");
    Initialize("/opt/orv/bin/orvd", FileInfo::FileBaseName("/x/5.5"));
    EXPECT_STREQ(ProgInfo::GetVersion(), "5.5");
}

TEST(ProgInfoTest, TheVectorsAreKeptNotCopied)
{
    char name[] = "orvd", option[] = "-d";
    char* argv[] = {name, option, nullptr};
    ProgInfo::Initialize(2, argv, nullptr, nullptr);
    EXPECT_EQ(ProgInfo::Getargv(), argv);
    EXPECT_EQ(ProgInfo::Getargc(), 2);
    name[0] = 'X';
    EXPECT_STREQ(ProgInfo::GetFullProgramName(), "orvd");
    Initialize("orvd", nullptr);
}

TEST(ProgInfoTest, TheLongVersionHasTheRevision)
{
    const std::pair<const char*, const char*> cases[] = {
        {"2.0", "2.0"},
        {"$Revision: 1.7 $", "1.7 "},
        {"$Revision: 1.7$", "1.7"},
        {"$Revision:1.7 $", ".7 "},
        {"$Revision: $", ""},
        {"$Revision: ", ""},
        {"$Revision:$", ""},
        {"$Revision:", ""},
        {"$Revision", "$Revision"},
        {" $Revision: 1.7 $", " $Revision: 1.7 $"},
        {"%s%n", "%s%n"},
        {"", ""},
        {nullptr, ""},
    };
    for (const auto& c : cases) {
        Initialize("/opt/orv/bin/orvd", c.first);
        EXPECT_EQ(ProgInfo::GetLongVersion(), std::string("/opt/orv/bin/orvd: v") + c.second + "(P) [" + Node() + "]")
            << (c.first != nullptr ? c.first : "null");
    }
}

TEST(ProgInfoTest, TheLongVersionIsOverwrittenByTheNextCall)
{
    Initialize("orvd", "1");
    const char* text = ProgInfo::GetLongVersion();
    Initialize("orvd", "2");
    EXPECT_EQ(text, "orvd: v1(P) [" + Node() + "]");
    EXPECT_EQ(ProgInfo::GetLongVersion(), text);
    EXPECT_EQ(text, "orvd: v2(P) [" + Node() + "]");
}

TEST(ProgInfoTest, ALongVersionThatIsTooLongIsCut)
{
    const std::string name(PATH_MAX + 7000, 'n');
    Initialize(name.c_str(), "1");
    const std::string text = ProgInfo::GetLongVersion();
    EXPECT_GT(text.size(), static_cast<size_t>(PATH_MAX));
    EXPECT_EQ(text, name.substr(0, text.size()));
    Initialize("orvd", name.c_str());
    EXPECT_EQ(std::string(ProgInfo::GetLongVersion()), ("orvd: v" + name).substr(0, text.size()));
    Initialize("orvd", "2.0");
}

TEST(ProgInfoTest, KnowsTheHost)
{
    const struct utsname host = Host();
    EXPECT_EQ(ProgInfo::GetLoginName(), User(getuid()));
    EXPECT_STREQ(ProgInfo::GetNodeName(), host.nodename);
    EXPECT_STREQ(ProgInfo::GetSystemName(), host.sysname);
    EXPECT_STREQ(ProgInfo::GetOSRelease(), host.release);
    EXPECT_STREQ(ProgInfo::GetOSVersion(), host.version);
    EXPECT_STREQ(ProgInfo::GetMachine(), host.machine);
    EXPECT_STREQ(ProgInfo::GetArchitecture(), host.machine);
    EXPECT_EQ(ProgInfo::GetNodeName(), ProgInfo::GetNodeName()) << "read once and kept";
    EXPECT_EQ(ProgInfo::GetLoginName(), ProgInfo::GetLoginName());
    EXPECT_NE(static_cast<const void*>(ProgInfo::GetMachine()), ProgInfo::GetArchitecture()) << "a copy each";
}

TEST(ProgInfoTest, SysInfoStringIsReadOnceAndKeptInItsCopy)
{
    char* text = nullptr;
    EXPECT_STREQ(ProgInfo::GetSysInfoString(svr4::SI_SYSNAME, &text), Host().sysname);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(ProgInfo::GetSysInfoString(svr4::SI_MACHINE, &text), text) << "what is kept is not read again";
    EXPECT_STREQ(text, Host().sysname);
    delete[] text;
    text = nullptr;
    EXPECT_STREQ(ProgInfo::GetSysInfoString(12345, &text), "");
    EXPECT_EQ(text, nullptr);
}

TEST(ProgInfoTest, DynamicMemoryGrowsWithTheBreak)
{
    const ChildResult child = RunInChild([] {
        const int before = ProgInfo::GetMaxDynamicMemoryUsed();
        sbrk(1 << 20);
        printf("%d %d", before >= 0, ProgInfo::GetMaxDynamicMemoryUsed() - before);
    });
    EXPECT_EQ(child.out, "1 1048576");
}

TEST(ProgInfoTest, ShowsItWhole)
{
    char name[] = "/opt/orv/bin/orvd", option[] = "-d", empty[] = "", home[] = "HOME=/home/ops", mark[] = "X";
    char* argv[] = {name, option, empty, nullptr};
    char* envp[] = {home, mark, nullptr};
    ProgInfo::Initialize(3, argv, envp, "$Revision: 1.7 $");
    EXPECT_EQ(ShowWithoutHeapSize(), std::string(Dashes) + "Program Information\n" + Dashes +
                                         "Program Name:      orvd\n"
                                         "Full Program Name: /opt/orv/bin/orvd\n"
                                         "Version:           $Revision: 1.7 $\n"
                                         "Long Version:      /opt/orv/bin/orvd: v1.7 (P) [" +
                                         Node() + "]\n" + HostLines() + Dashes + "Command Line Parameters\n" + Dashes +
                                         "argv[0]: /opt/orv/bin/orvd\nargv[1]: -d\nargv[2]: \n" + Dashes + Dashes +
                                         "Environment:\n" + Dashes + "HOME=/home/ops\nX\n" + Dashes);
    Initialize("orvd", nullptr);
}

TEST(ProgInfoTest, AUserAndAGroupWithoutAnEntryHaveNoName)
{
    const ChildResult child = RunInChild([] {
        MakeCallsFail({SYS_getuid, SYS_geteuid, SYS_getgid, SYS_getegid}, 4000); // an id that the databases lack
        ChildNeeds(getpwuid(getuid()) == nullptr && getgrgid(getgid()) == nullptr);
        std::cout << getuid() << '\n' << Show();
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to be an unknown user here";
    const std::string id = child.out.substr(0, child.out.find('\n'));
    EXPECT_NE(child.out.find("\nuid:               " + id + " \neuid:              " + id +
                             " \ngid:               " + id + " \negid:              " + id + " \n"),
              std::string::npos)
        << child.out;
}

} // namespace
