// SPDX-License-Identifier: BSD-2-Clause
// The module map beside the crash file.
#include "Misc/mobject.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"
#include "tests/unit/crash_testing.h"
#include "tests/unit/mobject_testing.h"

using namespace crash_testing;
using namespace mobject_testing;
using namespace testing_support;

namespace {

struct MappedModule {
    unsigned long low = 0, high = 0, bias = 0;
    std::string buildId, path;
};

struct Block {
    std::string heading;
    long pid = 0;
    unsigned long count = 0;
    std::vector<MappedModule> modules;

    const MappedModule* Holding(unsigned long address) const
    {
        for (const MappedModule& module : modules)
            if (module.low <= address && address < module.high)
                return &module;
        return nullptr;
    }
};

// The blocks of a map, every line of which must be as it should be.
std::vector<Block> Blocks(const std::string& text)
{
    std::vector<Block> blocks;
    Lines lines(text);
    while (!lines.Rest().empty()) {
        Block block;
        std::vector<std::string> match;
        EXPECT_EQ(lines.Peek(), "");
        lines.Skip();
        block.heading = lines.Peek();
        lines.Skip();
        if (!lines.Take("pid=([0-9]+)\tmodules=([0-9]+)", &match)) {
            ADD_FAILURE() << lines.Peek();
            return blocks;
        }
        block.pid = std::stol(match[1]);
        block.count = std::stoul(match[2]);
        while (lines.Take("low=([0-9a-f]{8,})\thigh=([0-9a-f]{8,})\tbias=(.*)", &match)) {
            MappedModule module;
            module.low = Hex(match[1]);
            module.high = Hex(match[2]);
            const std::vector<std::string> rest =
                Pattern("^([0-9a-f]{8,})\tbuildid=([0-9a-f]*)\tpath=(.*)$").Match(match[3]);
            if (rest.empty()) {
                ADD_FAILURE() << match[0];
                return blocks;
            }
            module.bias = Hex(rest[1]);
            module.buildId = rest[2];
            module.path = rest[3];
            block.modules.push_back(module);
        }
        blocks.push_back(block);
    }
    return blocks;
}

std::string Map(const std::string& name) { return ReadFile(MapFile(name)); }

// The first line of the last report of a program's crash file.
std::string LastHeading(const std::string& name)
{
    const std::string text = ReadFile(CrashFile(name));
    const size_t end = text.rfind("\n\n......initiating dump...");
    return text.substr(text.rfind('\n', end - 1) + 1, end - text.rfind('\n', end - 1) - 1);
}

std::string RealPath(const std::string& path)
{
    char* real = realpath(path.c_str(), nullptr);
    std::string result = real != nullptr ? real : "";
    free(real);
    return result;
}

void CrashWithAnObject()
{
    MonitoredObject object;
    WriteToNull();
}

class ModuleMap : public Capture {
protected:
    // A crash that must leave its report, whatever becomes of the map.
    Crash CrashWhole(const std::string& name, const std::function<void()>& body = CrashWithAnObject)
    {
        Crash crash = CrashAs(name, body);
        EXPECT_EQ(crash.child.signal, SIGABRT);
        EXPECT_EQ(crash.err, CaptureMessages(name, SIGSEGV));
        EXPECT_EQ(CheckReport(crash.report, name, SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
        unlink(CrashFile(name).c_str());
        return crash;
    }
};

TEST_F(ModuleMap, NamesTheModulesOfTheReport)
{
    pid_t pid = 0;
    const ChildResult child = RunInChild(
        [] {
            BecomeProgram("mapped");
            CrashWithAnObject();
        },
        60, [&pid](pid_t of) { pid = of; });
    EXPECT_EQ(child.signal, SIGABRT);
    const std::vector<Block> blocks = Blocks(Map("mapped"));
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].heading, LastHeading("mapped"));
    EXPECT_EQ(blocks[0].pid, pid);
    ASSERT_EQ(blocks[0].modules.size(), blocks[0].count);
    EXPECT_EQ(blocks[0].modules[0].path, RealPath("/proc/self/exe"));
    const Report report = Parse(WithoutDates(ReadFile(CrashFile("mapped"))));
    const MappedModule* module = blocks[0].Holding(report.Register("EIP"));
    ASSERT_EQ(module, blocks[0].modules.data());
    // This process is the parent: its program lies where that of the child did.
    EXPECT_LT(report.Register("EIP") - reinterpret_cast<unsigned long>(WriteToNull), 100u);
    unlink(CrashFile("mapped").c_str());
    unlink(MapFile("mapped").c_str());
}

TEST_F(ModuleMap, NamesASharedObjectThatWasLoadedLater)
{
    const Crash crash = CrashAs("loads", [] {
        MonitoredObject first;
        void* handle = dlopen(CRASHING_MODULE, RTLD_NOW);
        MonitoredObject second;
        reinterpret_cast<void (*)(int*)>(dlsym(handle, "CrashInModule"))(nullptr);
    });
    const std::vector<Block> blocks = Blocks(Map("loads"));
    ASSERT_EQ(blocks.size(), 1u);
    const MappedModule* module = blocks[0].Holding(Parse(crash.report).Register("EIP"));
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module->path, RealPath(CRASHING_MODULE));
    EXPECT_EQ(module->buildId.size(), 40u);
    unlink(CrashFile("loads").c_str());
}

TEST_F(ModuleMap, APathIsOneLineWhateverIsInIt)
{
    const TemporaryDirectory directory;
    const std::string path = directory.File("a b\n\\\tc\x7f.so");
    WriteFile(path, ReadFile(CRASHING_MODULE));
    const Crash crash = CrashAs("odd", [&path] {
        dlopen(path.c_str(), RTLD_NOW);
        CrashWithAnObject();
    });
    const std::vector<Block> blocks = Blocks(Map("odd"));
    ASSERT_EQ(blocks.size(), 1u);
    const std::string expected = RealPath(directory.Path()) + "/a b\\012\\134\\011c\\177.so";
    EXPECT_EQ(CountOf(Map("odd"), "\tpath=" + expected + "\n"), 1);
    unlink(CrashFile("odd").c_str());
}

TEST_F(ModuleMap, HasABlockForEveryReportInTheirOrder)
{
    std::vector<std::string> headings;
    for (int i = 0; i < 3; i++) {
        CrashAs("again", CrashWithAnObject);
        headings.push_back(LastHeading("again"));
    }
    const std::vector<Block> blocks = Blocks(Map("again"));
    ASSERT_EQ(blocks.size(), 3u);
    for (size_t i = 0; i < blocks.size(); i++)
        EXPECT_EQ(blocks[i].heading, headings[i]);
    unlink(CrashFile("again").c_str());
}

TEST_F(ModuleMap, ACrashWithinACrashHasItsBlock)
{
    CrashAs("nested", [] {
        Probe object("object");
        object.onTerm = [](int) { abort(); };
        WriteToNull();
    });
    const std::vector<Block> blocks = Blocks(Map("nested"));
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_NE(blocks[0].heading.find("SIGNAL " + std::to_string(SIGSEGV) + " "), std::string::npos);
    EXPECT_NE(blocks[1].heading.find("SIGNAL " + std::to_string(SIGABRT) + " "), std::string::npos);
    unlink(CrashFile("nested").c_str());
}

TEST_F(ModuleMap, IsMovedAwayWithItsCrashFile)
{
    for (const char* old : {"earlier map\n", ""}) {
        WriteFile(CrashFile("moved"), std::string(70000, 'y'));
        WriteFile(MapFile("moved") + ".old", "of an earlier one\n");
        if (*old != '\0')
            WriteFile(MapFile("moved"), old);
        CrashAs("moved", CrashWithAnObject);
        EXPECT_EQ(Blocks(Map("moved")).size(), 1u);
        EXPECT_EQ(ReadFile(MapFile("moved") + ".old"), old) << "none where the crash file had none";
        unlink(CrashFile("moved").c_str());
        unlink(MapFile("moved").c_str());
    }
    unlink((CrashFile("moved") + ".old").c_str());
}

TEST_F(ModuleMap, DoesNotGrowForEverWhereCrashFilesAreTakenAway)
{
    const std::string large(1024 * 1024 + 1, 'x');
    WriteFile(MapFile("grows"), large);
    CrashWhole("grows");
    EXPECT_EQ(Blocks(Map("grows")).size(), 1u);
    EXPECT_EQ(ReadFile(MapFile("grows") + ".old"), large);
}

TEST_F(ModuleMap, ALinkIsNotFollowed)
{
    const std::string elsewhere = Directory + "/elsewhere-map";
    WriteFile(elsewhere, "other's");
    ASSERT_EQ(symlink(elsewhere.c_str(), MapFile("map-link").c_str()), 0);
    CrashWhole("map-link");
    EXPECT_EQ(ReadFile(elsewhere), "other's");
    unlink(elsewhere.c_str());
}

TEST_F(ModuleMap, AFifoIsNotWrittenAndHoldsNothingUp)
{
    ASSERT_EQ(mkfifo(MapFile("map-fifo").c_str(), 0666), 0);
    CrashWhole("map-fifo");
    const int reader = open(MapFile("map-fifo").c_str(), O_RDONLY | O_NONBLOCK);
    CrashWhole("map-fifo");
    char byte;
    EXPECT_EQ(read(reader, &byte, 1), 0);
    close(reader);
}

TEST_F(ModuleMap, ADirectoryCostsNothing)
{
    ASSERT_EQ(mkdir(MapFile("map-directory").c_str(), 0755), 0);
    CrashWhole("map-directory");
    rmdir(MapFile("map-directory").c_str());
}

TEST_F(ModuleMap, AMapThatMayNotBeWrittenCostsNothing)
{
    WriteFile(MapFile("map-rights"), "earlier map\n");
    ASSERT_EQ(chmod(MapFile("map-rights").c_str(), 0444), 0);
    const Crash crash = CrashAs("map-rights", [] {
        DropPrivileges();
        CrashWithAnObject();
    });
    if (crash.child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to be a user without rights here";
    EXPECT_EQ(crash.err, CaptureMessages("map-rights", SIGSEGV));
    EXPECT_EQ(CheckReport(crash.report, "map-rights", SIGSEGV), StateDump(0, 0, 1, ObjectDump(0, "not avail\n")));
    EXPECT_EQ(Map("map-rights"), "earlier map\n");
    unlink(CrashFile("map-rights").c_str());
}

// A program that has loaded `paths` has room for the heading of a block, but not for its modules; the crash file is empty
// before, the map is not.
void ExpectTakenBack(const std::vector<std::string>& paths)
{
    WriteFile(MapFile("no-room"), std::string(5000, '\n'));
    const Crash crash = CrashAs("no-room", [&] {
        for (const std::string& path : paths)
            CHILD_CHECK(dlopen(path.c_str(), RTLD_NOW) != nullptr);
        Probe object("object");
        object.talks = false;
        LimitFileSize(5100);
        WriteToNull();
    });
    EXPECT_EQ(Map("no-room"), std::string(5000, '\n'));
    EXPECT_EQ(crash.report.compare(0, Heading("no-room", SIGSEGV).size(), Heading("no-room", SIGSEGV)), 0);
    unlink(CrashFile("no-room").c_str());
}

TEST_F(ModuleMap, ABlockThatDoesNotFitIsTakenBack) { ExpectTakenBack({}); }

TEST_F(ModuleMap, ABlockOfManyModulesThatDoesNotFitIsTakenBack)
{
    const TemporaryDirectory directory;
    std::vector<std::string> paths;
    for (int i = 0; i < 30; i++) {
        paths.push_back(directory.File(std::string(200, 'm') + std::to_string(i)));
        WriteFile(paths.back(), ReadFile(CRASHING_MODULE));
    }
    ExpectTakenBack(paths);
}

TEST_F(ModuleMap, AFullDiskLeavesItsRoomToTheReport)
{
    const std::string path = Directory + "/full";
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    if (!InSandbox() || mount("none", Directory.c_str(), "tmpfs", 0, "size=16k,mode=777") != 0) {
        rmdir(path.c_str());
        GTEST_SKIP() << "no way to have a small disk here";
    }
    // Three pages: one for the crash file at least. The map's block has the heading's arguments, so goes beyond one.
    WriteFile(MapFile("full"), std::string(4096, '\n'));
    WriteFile(Directory + "/filler", std::string(2 * 4096, 'x'));
    const Crash crash = CrashAs("full", CrashWithAnObject);
    EXPECT_EQ(crash.child.signal, SIGABRT);
    EXPECT_EQ(Map("full"), std::string(4096, '\n')) << "no part of a block";
    EXPECT_EQ(crash.report.compare(0, Heading("full", SIGSEGV).size(), Heading("full", SIGSEGV)), 0);
    umount(Directory.c_str());
    rmdir(path.c_str());
}

TEST_F(ModuleMap, ADamagedHeapDoesNotReachIt)
{
    CrashAs("map-heap", [] {
        MonitoredObject object;
        auto* const end = static_cast<volatile char*>(sbrk(0));
        for (volatile char* at = end - 100000; at < end; at++)
            *at = 0x55;
        WriteToNull();
    });
    const std::vector<Block> blocks = Blocks(Map("map-heap"));
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].modules.size(), blocks[0].count);
    unlink(CrashFile("map-heap").c_str());
}

TEST_F(ModuleMap, AProgramWithoutANameHasADefaultMap)
{
    unlink(CrashFile("mobject").c_str());
    unlink(MapFile("mobject").c_str());
    RunInChild(CrashWithAnObject);
    const std::vector<Block> blocks = Blocks(Map("mobject"));
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].heading, LastHeading("mobject"));
    unlink(CrashFile("mobject").c_str());
    unlink(MapFile("mobject").c_str());
}

} // namespace
