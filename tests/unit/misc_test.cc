// SPDX-License-Identifier: BSD-2-Clause
// Hosts, and what the node list allows them.
#include "Misc/misc.h"

#include <cstdio>
#include <cstdlib>

#include "Misc/cstring.h"

// A static object of another unit asks for a node before main and after it, in a process of its own. It stands before
// the other headers, so that nothing but the library's own has made the standard streams ready.
static struct EarlyAndLateUser {
    EarlyAndLateUser() { Ask(); }
    ~EarlyAndLateUser() { Ask(); }
    static void Ask()
    {
        if (std::getenv("MISC_TEST_STATICS") == nullptr)
            return;
        CString option;
        const int rejected = GetAccessOptionForNode("alpha", "none", option);
        std::printf("%d %s\n", rejected, static_cast<const char*>(option));
        std::fflush(stdout);
    }
} earlyAndLateUser;

#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "tests/support/failing_memory.h"
#include "tests/support/testing.h"

using namespace testing_support;

// The resolver of this host gives Internet addresses only; of this one name it gives those of another family.
hostent* gethostbyname(const char* name)
{
    static const auto resolve = reinterpret_cast<hostent* (*)(const char*)>(dlsym(RTLD_NEXT, "gethostbyname"));
    static char official[] = "foreign.example";
    static char address[] = "\1\2\3\4";
    static char* addresses[] = {address, nullptr};
    static hostent foreign = {official, addresses + 1, 25, 4, addresses};
    return std::strcmp(name, "foreign") == 0 ? &foreign : resolve(name);
}

namespace {

const char NodesFile[] = "/var/orv/data/orvnodes.dat";

#define NEED_PRIVATE_FILES()                                                                                           \
    if (!InSandbox())                                                                                                  \
    GTEST_SKIP() << "needs /etc/hosts and /var/orv/data of its own"

// The host table and the node list of the test. Each question is asked in a process of its own, whose lists are new.
class NodesTest : public testing::Test {
protected:
    void SetUp() override
    {
        NEED_PRIVATE_FILES();
        static char name[] = "/opt/orv/bin/orvd";
        static char* const argv[] = {name, nullptr};
        ProgInfo::Initialize(1, argv, nullptr, "2.0");
        hosts = ReadFile("/etc/hosts");
        WriteFile("/etc/hosts", "127.0.0.1 localhost\n"
                                "10.9.8.1 alpha alias\n"
                                "10.9.8.2 beta\n"
                                "10.9.8.3 many\n"
                                "10.9.8.4 many\n"
                                "10.9.8.5 more\n"
                                "10.9.8.4 more\n"
                                "10.9.9.4 last\n"
                                "2001:db8::1 six\n");
        unlink(NodesFile);
    }
    void TearDown() override
    {
        if (!InSandbox())
            return;
        WriteFile("/etc/hosts", hosts);
        unlink(NodesFile);
    }

    std::string hosts;
};

// Gives the node list a new content and the modification time `time`.
void SetNodes(const std::string& content, long time)
{
    WriteFile(NodesFile, content);
    const timespec times[2] = {{time, 0}, {time, 0}};
    utimensat(AT_FDCWD, NodesFile, times, 0);
}

// Asks for a node and prints the result and the option.
void Ask(const char* node, const char* standard = "none")
{
    CString option("untouched");
    const int rejected = GetAccessOptionForNode(node, standard, option);
    std::cout << rejected << " [" << static_cast<const char*>(option) << "]" << std::endl;
}

// What `body` prints in a child whose lists are new; there is nothing on standard error.
std::string Told(const std::function<void()>& body)
{
    const ChildResult child = RunInChild(body);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.err, "");
    return child.out;
}

// A report with everything that changes taken out.
std::string Report(int count, const char* severity, const char* type, const char* code, const std::string& description)
{
    return DisplayedReport({"misc", type, description, severity, code, "/opt/orv/bin/orvd", std::to_string(count)});
}

std::string Reports(const std::string& err) { return Replaced(WithoutTimes(err), "Line= [0-9]+", "Line= <line>"); }

// What the resolver leaves in errno is its own affair.
std::string WithoutErrorCodes(const std::string& text)
{
    return Replaced(text, "Error Code= [^\n]*", "Error Code= <code>");
}

std::string Rejection(int count, const std::string& node)
{
    return Report(count, "WARNING_WITH_LOG", "Receiving fault message from an invalid node", "<code>",
                  "ORV rejected message from invalid node " + node);
}

const char* const OutOfMemory = "Memory allocation failed.";
const char* const NoFile = "No orvnodes.dat file.";
const char* const NoFileCode = "2 : No such file or directory";

TEST_F(NodesTest, GetHostFindsInternetAddressesOnly)
{
    EXPECT_EQ(Told([] {
                  const hostent* host = GetHost("many");
                  std::printf("%s %d %d", host->h_name, host->h_addrtype == AF_INET, host->h_length);
                  for (char** address = host->h_addr_list; *address != nullptr; address++)
                      std::printf(" %s", inet_ntoa(*reinterpret_cast<in_addr*>(*address)));
                  std::printf("\n%d %d %d\n", GetHost("nosuchhost") == nullptr, GetHost("six") == nullptr,
                              GetHost(nullptr) == nullptr);
              }),
              "many 1 4 10.9.8.3 10.9.8.4\n1 1 1\n");
}

TEST_F(NodesTest, GetHostTellsAFailureAtLevel4)
{
    EXPECT_EQ(Told([] {
                  for (const short level : {3, 4, 5}) {
                      MonitoredObject::SetDebugLevel(level);
                      GetHost("no%shost%n");
                      GetHost(nullptr);
                      GetHost("alpha");
                  }
              }),
              "WARNING: gethostbyname failed for host no%shost%n\nWARNING: gethostbyname failed for host \n"
              "WARNING: gethostbyname failed for host no%shost%n\nWARNING: gethostbyname failed for host \n");
}

TEST_F(NodesTest, AddrEqualComparesEveryAddress)
{
    EXPECT_EQ(AddrEqual("alpha", "alpha"), 1);
    EXPECT_EQ(AddrEqual("alias", "alpha"), 1);
    EXPECT_EQ(AddrEqual("alpha", "10.9.8.1"), 1);
    EXPECT_EQ(AddrEqual("alpha", "beta"), 0);
    EXPECT_EQ(AddrEqual("many", "more"), 1);
    EXPECT_EQ(AddrEqual("more", "many"), 1);
    EXPECT_EQ(AddrEqual("many", "10.9.8.4"), 1);
    EXPECT_EQ(AddrEqual("many", "last"), 0) << "all four bytes count";
    EXPECT_EQ(AddrEqual("last", "10.9.8.4"), 0);
    EXPECT_EQ(AddrEqual("nosuchhost", "alpha"), 0);
    EXPECT_EQ(AddrEqual("alpha", "nosuchhost"), 0);
    EXPECT_EQ(AddrEqual("nosuchhost", "nosuchhost"), 0);
    EXPECT_EQ(AddrEqual(nullptr, "alpha"), 0);
    EXPECT_EQ(AddrEqual("alpha", nullptr), 0);
}

TEST_F(NodesTest, AddressesOfAnotherFamilyAreReported)
{
    const ChildResult child = RunInChild([] {
        MonitoredObject::SetDebugLevel(4); // the name did resolve
        std::printf("%d %d %d\n", GetHost("foreign") == nullptr, AddrEqual("foreign", "alpha"),
                    AddrEqual("alpha", "foreign"));
    });
    EXPECT_EQ(child.out, "1 0 0\n");
    std::string reports;
    for (const int count : {1, 2, 3})
        reports += Report(count, "WARNING", "Invalid data was encountered.", "<code>",
                          "Invalid address type: (foreign.example) 25.");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)), reports);
}

TEST_F(NodesTest, WithoutMemoryForAddressesTheyDiffer)
{
    const ChildResult child = RunInChild([] {
        GetHost("many"); // the resolver has its memory
        const MemoryFailure failure = MemoryFailure::OfNext(Calloc);
        std::printf("%d", AddrEqual("many", "many"));
        std::printf(" %d\n", AddrEqual("many", "many"));
    });
    EXPECT_EQ(child.out, "0 1\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "calloc failed for 8 bytes."));
}

TEST_F(NodesTest, GlobalAcceptsWithoutReadingTheFile)
{
    EXPECT_EQ(Told([] {
                  Ask("x", "global"); // there is no file, and nobody says so
                  Ask("x", "global");
              }),
              "0 [global]\n0 [global]\n");
    const ChildResult child = RunInChild([] { Ask("x", "Global"); });
    EXPECT_EQ(child.out, "1 [Global]\n") << "case matters";
}

TEST_F(NodesTest, FindsAnEntryByItsName)
{
    SetNodes("\n"
             " \t \n"
             "alphabet wrong\n"
             "alpha full\n"
             " \tone\t \tlocal rest of the line\n"
             "alone\n"
             "Case upper\n"
             "alpha second\n"
             "last end",
             1000);
    EXPECT_EQ(Told([] {
                  for (const char* node : {"alpha", "one", "alone", "Case", "last"})
                      Ask(node);
              }),
              "0 [full]\n0 [local]\n0 []\n0 [upper]\n0 [end]\n");
    const ChildResult child = RunInChild([] {
        Ask("case");
        Ask("");
        Ask(nullptr, nullptr);
    });
    EXPECT_EQ(child.out, "1 [none]\n1 [none]\n0 []\n") << "null is the empty name, rejected before";
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)), Rejection(1, "case") + Rejection(2, ""));
}

TEST_F(NodesTest, TheTextsMayBeThoseOfTheResult)
{
    SetNodes("alpha full\n", 1000);
    EXPECT_EQ(Told([] {
                  CString value("alpha");
                  GetAccessOptionForNode(value, value, value);
                  std::printf("%s\n", static_cast<const char*>(value));
                  value = "global";
                  std::printf("%d", GetAccessOptionForNode(value, value, value));
                  std::printf(" %s\n", static_cast<const char*>(value));
              }),
              "full\n0 global\n");
}

TEST_F(NodesTest, ALineTooLongGoesOnAsTheNext)
{
    const std::string filler(507, 'x');
    SetNodes("a o " + filler + "beyond 511\n" + // 511 characters, then an entry
                 "b o " + filler + "\n" +       // exactly 511
                 "c o\n" + std::string(511, 'd') + std::string(511, 'e') + "f longest",
             1000);
    const std::string out = Told([] {
        for (const char* node : {"a", "beyond", "b", "c", "f"})
            Ask(node);
        MonitoredObject::SetDebugLevel(4);
        Ask("c", "standard");
    });
    EXPECT_EQ(out, "0 [o]\n0 [511]\n0 [o]\n0 [o]\n0 [longest]\n"
                   "Checking node [c] for access permission.\n"
                   "Valid node: [a o " +
                       filler + "]\nValid node: [beyond 511]\nValid node: [b o " + filler +
                       "]\nValid node: [c o]\nValid node: [" + std::string(511, 'd') + "]\nValid node: [" +
                       std::string(511, 'e') + "]\nValid node: [f longest]\n" +
                       "DefaultVal: remote_access option = standard\n0 [o]\n");
}

TEST_F(NodesTest, IsReadAgainOnlyWhenItIsLater)
{
    EXPECT_EQ(Told([] {
                  SetNodes("alpha first\n", 1000);
                  Ask("alpha");
                  SetNodes("alpha older\n", 999);
                  Ask("alpha");
                  SetNodes("alpha same\n", 1000);
                  Ask("alpha");
                  SetNodes("alpha later\n", 1001);
                  Ask("alpha");
                  WriteFile(NodesFile, "alpha now\n");
                  Ask("alpha");
              }),
              "0 [first]\n0 [first]\n0 [first]\n0 [later]\n0 [now]\n");
}

TEST_F(NodesTest, AFileOfTheBeginningOfTimeIsNotRead)
{
    SetNodes("alpha full\n", 0);
    EXPECT_EQ(RunInChild([] { Ask("alpha"); }).out, "1 [none]\n");
}

TEST_F(NodesTest, AMissingFileIsReportedOnceAndTheListStays)
{
    const ChildResult child = RunInChild([] {
        CheckNodesFile();
        CheckNodesFile();
        SetNodes("alpha full\n", 1000);
        Ask("alpha");
        unlink(NodesFile);
        Ask("alpha");
        Ask("alpha");
        SetNodes("alpha older\n", 999); // seen, not read
        Ask("alpha");
        unlink(NodesFile);
        CheckNodesFile();
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [full]\n0 [full]\n0 [full]\n");
    EXPECT_EQ(Reports(child.err), Report(1, "WARNING", "OTHER", NoFileCode, NoFile) +
                                      Report(2, "WARNING", "OTHER", NoFileCode, NoFile) +
                                      Report(3, "WARNING", "OTHER", NoFileCode, NoFile));
}

TEST_F(NodesTest, AFileThatCannotBeReadKeepsTheListAndIsReportedOnce)
{
    const ChildResult child = RunInChild([] {
        SetNodes("alpha full\n", 1000);
        Ask("alpha");
        std::rename(NodesFile, "/var/orv/data/aside");
        mkdir(NodesFile, 0755);
        Ask("alpha");
        Ask("alpha");
        rmdir(NodesFile);
        SetNodes("alpha later\n", 1001); // earlier than the directory was made
        Ask("alpha");
        std::rename(NodesFile, "/var/orv/data/aside");
        mkdir(NodesFile, 0755);
        Ask("alpha");
        rmdir(NodesFile);
        unlink("/var/orv/data/aside");
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [full]\n0 [full]\n0 [later]\n0 [later]\n");
    const char* const type = "Failed to read from a file.";
    const char* const code = "21 : Is a directory";
    EXPECT_EQ(Reports(child.err),
              Report(1, "WARNING", type, code, NodesFile) + Report(2, "WARNING", type, code, NodesFile));
}

TEST_F(NodesTest, AFifoIsNoListAndIsNotWaitedFor)
{
    const ChildResult child = RunInChild([] {
        SetNodes("alpha full\n", 1000);
        Ask("alpha");
        std::rename(NodesFile, "/var/orv/data/aside");
        mkfifo(NodesFile, 0644);
        const int descriptors = OpenDescriptors();
        Ask("alpha");
        Ask("alpha");
        CHILD_CHECK(OpenDescriptors() == descriptors);
        std::rename("/var/orv/data/aside", NodesFile);
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [full]\n0 [full]\n");
    EXPECT_EQ(Reports(child.err), Report(1, "WARNING", "Failed to open a file.", "22 : Invalid argument", NodesFile));
}

TEST_F(NodesTest, AFileThatDoesNotOpenKeepsTheListUntilItDoes)
{
    const ChildResult child = RunInChild([] {
        struct rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        CheckNodesFile(); // a report, since the sanitizers need a descriptor to look at their first reporter
        SetNodes("alpha full\n", 1000);
        Ask("alpha");
        SetNodes("alpha later\n", 1001);
        const struct rlimit none = {3, limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        Ask("alpha");
        Ask("alpha");
        setrlimit(RLIMIT_NOFILE, &limit);
        Ask("alpha");
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [full]\n0 [full]\n0 [later]\n");
    EXPECT_EQ(Reports(child.err),
              Report(1, "WARNING", "OTHER", NoFileCode, NoFile) +
                  Report(2, "WARNING", "Failed to open a file.", "24 : Too many open files", NodesFile));
}

TEST_F(NodesTest, AnAliasIsAcceptedByAddressAndThenByName)
{
    SetNodes("nosuchhost wrong\n10.9.8.2 numeric\nalpha full\nalpha second\nmore\n", 1000);
    EXPECT_EQ(Told([] {
                  Ask("alias");
                  WriteFile("/etc/hosts", ""); // from here on there is no look-up
                  Ask("alias");
              }),
              "0 [full]\n0 [full]\n");
}

TEST_F(NodesTest, ALearnedEntryLastsUntilTheFileIsRead)
{
    SetNodes("alpha full\nmore\n", 1000);
    const std::string out = Told([] {
        Ask("alias");
        Ask("many"); // an entry without an option
        MonitoredObject::SetDebugLevel(4);
        Ask("alpha");
        SetNodes("beta new\nalpha changed\n", 1001);
        Ask("alias");
    });
    const auto checking = [](const std::string& node) {
        return "Checking node [" + node +
               "] for access permission.\n"
               "Valid node: [alpha full]\nValid node: [more]\nValid node: [alias full]\nValid node: [many ]\n"
               "DefaultVal: remote_access option = none\n";
    };
    EXPECT_EQ(out, "0 [full]\n0 []\n" + checking("alpha") + "0 [full]\n" + checking("alias") +
                       "List before deletion:\n"
                       "Valid node: alpha full\nValid node: more\nValid node: alias full\nValid node: many \n"
                       "0 [changed]\n");
}

TEST_F(NodesTest, ARejectionIsLoggedOncePerNode)
{
    SyslogSink sink;
    SetNodes("alpha full\n", 1000);
    const ChildResult child = RunInChild([] {
        Ask("stranger");
        Ask("stranger");
        Ask("beta", "standard");
        Ask("stranger", "");
        Ask("beta");
    });
    EXPECT_EQ(child.out, "1 [none]\n0 [none]\n1 [standard]\n0 []\n0 [none]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)), Rejection(1, "stranger") + Rejection(2, "beta"));

    const std::vector<std::string> records = sink.Records();
    ASSERT_EQ(records.size(), 2u);
    const std::string line = ReportField(child.err, "  Line= ");
    const auto record = [&](const std::string& node) {
        return "orvd: " + std::to_string(410920000 + std::stol(line)) +
               "|Appl|1|S|W|1|0|0|0|0|0|misc.cc|0|0|0|1#/opt/orv/bin/orvd /opt/orv/bin/orvd: v2.0(P) [" +
               ProgInfo::GetNodeNameLongVersion() +
               "]|errno=<code>|Receiving fault message from an invalid node|ORV rejected message from invalid node " +
               node + "|" + node;
    };
    const auto plain = [](const std::string& text) { return Replaced(text, "errno=[^|]*", "errno=<code>"); };
    EXPECT_EQ(plain(records[0]), record("stranger"));
    EXPECT_EQ(plain(records[1]), record("beta"));
}

TEST_F(NodesTest, ANameIsNoFormat)
{
    SyslogSink sink;
    SetNodes("alpha full\n", 1000);
    const ChildResult child = RunInChild([] { Ask("%s%n%d%99999999d%"); });
    EXPECT_EQ(child.out, "1 [none]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)), Rejection(1, "%s%n%d%99999999d%"));
    const std::vector<std::string> records = sink.Records();
    ASSERT_EQ(records.size(), 1u);
    const std::string end = "|ORV rejected message from invalid node %s%n%d%99999999d%|%s%n%d%99999999d%";
    EXPECT_EQ(records[0].substr(records[0].size() - std::min(end.size(), records[0].size())), end);
}

TEST_F(NodesTest, ALongNameIsLoggedWhole)
{
    SyslogSink sink;
    SetNodes("alpha full\n", 1000);
    const std::string name(3000, 'n');
    const ChildResult child = RunInChild([&] {
        Ask(name.c_str());
        Ask(name.c_str());
    });
    EXPECT_EQ(child.out, "1 [none]\n0 [none]\n");
    const std::vector<std::string> records = sink.Records();
    ASSERT_EQ(records.size(), 1u);
    const std::string end = "|ORV rejected message from invalid node " + name + "|" + name;
    EXPECT_EQ(records[0].substr(records[0].size() - std::min(end.size(), records[0].size())), end);
}

TEST_F(NodesTest, TellsWhatItDoesAtLevel4)
{
    SetNodes("\nalpha full\nnosuchhost x\n", 1000);
    const std::string nodes = "Valid node: []\nValid node: [alpha full]\nValid node: [nosuchhost x]\n";
    const std::string standard = "DefaultVal: remote_access option = none\n";
    const ChildResult child = RunInChild([] {
        MonitoredObject::SetDebugLevel(4);
        Ask("beta");
        Ask("beta");
        Ask("any", "global");
    });
    EXPECT_EQ(child.out, "Checking node [beta] for access permission.\n" + standard + // the list is read after this
                             "List before deletion:\n"
                             "WARNING: gethostbyname failed for host nosuchhost\n"
                             "1 [none]\n"
                             "Checking node [beta] for access permission.\nInvalid node: beta\n" +
                             nodes + standard +
                             "WARNING: gethostbyname failed for host nosuchhost\n"
                             "0 [none]\n"
                             "Checking node [any] for access permission.\nInvalid node: beta\n" +
                             nodes + "DefaultVal: remote_access option = global\n0 [global]\n");
}

TEST_F(NodesTest, TellsItsComparisonsFromLevel5On)
{
    SetNodes("\nalpha full\n10.9.8.1 x\n", 1000);
    for (const short level : {5, 6}) {
        const ChildResult child = RunInChild([level] {
            Ask("beta");
            Ask("last");
            MonitoredObject::SetDebugLevel(level);
            Ask("last");
            Ask("alpha");
        });
        const std::string lists = "Invalid node: beta\nInvalid node: last\nValid node: []\nValid node: [alpha full]\n"
                                  "Valid node: [10.9.8.1 x]\nDefaultVal: remote_access option = none\n";
        EXPECT_EQ(child.out, "1 [none]\n1 [none]\n"
                             "Checking node [last] for access permission.\n" +
                                 lists +
                                 "Comparing [alpha] with [last]\nComparing [10.9.8.1] with [last]\n"
                                 "Invalid Node: [ beta ]\nFrom Node: [ last ]\n"
                                 "Invalid Node: [ last ]\nFrom Node: [ last ]\n"
                                 "0 [none]\n"
                                 "Checking node [alpha] for access permission.\n" +
                                 lists + "Comparing [alpha] with [alpha]\n0 [full]\n");
    }
}

TEST_F(NodesTest, AFileOfMoreLinesThanAListHoldsIsReadAsFarAsThat)
{
    std::string lines;
    for (int i = 0; i < 256001; i++)
        lines += i == 255999 ? "within a\n" : i == 256000 ? "beyond b\n" : "\n";
    SetNodes(lines, 1000);
    const ChildResult child = RunInChild([] { Ask("within"); });
    EXPECT_EQ(child.out, "0 [a]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "failed to allocate memory for ValidNodes."));
}

TEST_F(NodesTest, WithoutMemoryForAnEntryTheReadingGoesOn)
{
    SetNodes("beta left out\nalpha full\n", 1000);
    const ChildResult child = RunInChild([] {
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CString), NewObject);
        Ask("alpha");
        Ask("beta");
    });
    EXPECT_EQ(child.out, "0 [full]\n1 [none]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "failed to allocate memory for ValidNodes.") +
                  Rejection(2, "beta"));
}

TEST_F(NodesTest, WithoutMemoryNothingIsLearned)
{
    SetNodes("alpha full\n", 1000);
    const ChildResult child = RunInChild([] {
        Ask("alpha");
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CString), NewObject);
        Ask("alias");
        Ask("alias");
        MonitoredObject::SetDebugLevel(4);
        Ask("alpha", "standard");
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [full]\n0 [full]\n"
                         "Checking node [alpha] for access permission.\n"
                         "Valid node: [alpha full]\nValid node: [alias full]\n" // by the second time
                         "DefaultVal: remote_access option = standard\n0 [full]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "failed to allocate memory for ValidNodes."));
}

TEST_F(NodesTest, WithoutMemoryToLookForItANodeMayDoNothing)
{
    SetNodes("alpha none\n", 1000);
    const ChildResult child = RunInChild([] {
        Ask("alpha", "full");
        for (const char* text : {"alpha", "none"}) { // the name, or the option
            const MemoryFailure failure = MemoryFailure::OfSize(sizeof(CStringRep) + std::strlen(text) + 1, NewObject);
            Ask("alpha", "standard");
        }
    });
    EXPECT_EQ(child.out, "0 [none]\n0 []\n0 []\n");
    const std::string what = "failed to allocate memory to look for node ";
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", (what + ".")) +
                  Report(2, "WARNING", OutOfMemory, "<code>", (what + "alpha.")));
}

TEST_F(NodesTest, ARejectionWithoutMemoryIsNotLogged)
{
    SyslogSink sink;
    SetNodes("alpha full\n", 1000);
    const ChildResult child = RunInChild([] {
        Ask("alpha");
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CString), NewObject);
        Ask("stranger");
        Ask("stranger");
    });
    EXPECT_EQ(child.out, "0 [full]\n0 [none]\n1 [none]\n");
    EXPECT_EQ(WithoutErrorCodes(Reports(child.err)),
              Report(1, "WARNING", OutOfMemory, "<code>", "failed to allocate memory for InValidNodes.") +
                  Rejection(2, "stranger"));
    EXPECT_EQ(sink.Records().size(), 1u);
}

TEST_F(NodesTest, ReadingLeavesNoDescriptorOpen)
{
    EXPECT_EQ(Told([] {
                  SetNodes("alpha full\n", 1000);
                  Ask("alpha");
                  Ask("alias");
                  const int before = OpenDescriptors();
                  for (int i = 1; i < 10; i++) {
                      SetNodes("alpha full\n", 1000 + i);
                      Ask("alias");
                  }
                  std::printf("%d\n", OpenDescriptors() - before);
              }),
              "0 [full]\n0 [full]\n" // and nine more
              "0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0 [full]\n0\n");
}

TEST_F(NodesTest, WorksBeforeMainAndAfterIt)
{
    SetNodes("beta full\n", 1000);
    const ChildResult child = RunInChild([] {
        setenv("MISC_TEST_STATICS", "1", 1);
        Execute("/proc/self/exe", {"--gtest_filter=none"});
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.out.find("1 none\n"), 0u) << child.out;
    EXPECT_EQ(child.out.rfind("0 none\n"), child.out.size() - 7) << "it was rejected before: " << child.out;
    EXPECT_NE(child.err.find("ORV rejected message from invalid node alpha"), std::string::npos);
}

} // namespace
