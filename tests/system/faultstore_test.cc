// SPDX-License-Identifier: BSD-2-Clause
// The example's store on a bad day: files that cannot be read or written, and what is on the disk at every moment.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "examples/faultstore.h"
#include "tests/support/failing_memory.h"
#include "tests/support/testing.h"

using namespace testing_support;

// ---- What reaches the disk, in order ----

static std::vector<std::string> steps;
static bool directoriesRefuse = false; // to be synced

extern "C" int fsync(int fd)
{
    char link[64], path[PATH_MAX + 1] = "";
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    if (readlink(link, path, sizeof path - 1) < 0)
        std::abort();
    steps.push_back(std::string("sync ") + std::filesystem::path(path).filename().c_str());
    struct stat status;
    if (directoriesRefuse && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

// The names of the parameters are those of the host.
extern "C" int rename(const char* __old, const char* __new) noexcept
{
    steps.push_back(std::string("rename ") + std::filesystem::path(__new).filename().c_str());
    return renameat(AT_FDCWD, __old, AT_FDCWD, __new);
}

extern "C" int unlink(const char* __name) noexcept
{
    const int result = unlinkat(AT_FDCWD, __name, 0);
    steps.push_back(std::string(result == 0 ? "unlink " : "no unlink ") +
                    std::filesystem::path(__name).filename().c_str());
    return result;
}

namespace {

const char First[] = "alpha%2F00000001";
const char Second[] = "alpha%2F00000002";

FaultRecord Record(long number, const char* text = "t", unsigned attached = 0)
{
    FaultRecord fault;
    fault.summary.hdr.myId = FaultId(number, "alpha");
    fault.summary.state = FirstFaultState;
    fault.summary.text = text;
    if (attached > 0) {
        fault.attachment.ReSize(attached);
        std::fill_n(&fault.attachment[0], attached, 'a');
        fault.summary.attached = static_cast<int>(attached);
    }
    return fault;
}

class FaultStoreTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs namespaces";
        path = directory.File("faults");
    }

    // Makes the store of two faults.
    void MakeTwo() const
    {
        FaultStore store(path.c_str());
        ASSERT_EQ(store.Load(), 0);
        ASSERT_EQ(store.Put(Record(1)), 0);
        ASSERT_EQ(store.Put(Record(2)), 0);
        steps.clear();
    }
    std::string File(const std::string& name) const { return path + "/" + name; }
    // The files of the directory by their names.
    std::map<std::string, std::string> Files() const
    {
        std::map<std::string, std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(path))
            files[entry.path().filename()] = ReadFile(entry.path());
        return files;
    }
    // "number state text" of each fault that a new store finds; or why it fails.
    std::string Loaded() const
    {
        FaultStore store(path.c_str());
        const short status = store.Load();
        return status == 0 ? Texts(store) : "failed " + std::to_string(status);
    }
    static std::string Texts(const FaultStore& store)
    {
        std::string texts;
        for (const auto& entry : store.All())
            texts += std::to_string(entry.first.GetId()) + " " + static_cast<const char*>(entry.second.summary.state) +
                     " " + static_cast<const char*>(entry.second.summary.text) + "\n";
        return texts;
    }
    // A start in a child for which `refuse` makes something fail: it ends with one report, and changes nothing.
    void ExpectRefused(const std::function<void()>& refuse, const std::string& what, int error) const
    {
        const auto before = Files();
        const ChildResult child = RunInChild([&] {
            FaultStore store(path.c_str());
            refuse();
            const short status = store.Load();
            CHILD_CHECK(status != 0 && store.All().size() < 2);
            CHILD_CHECK(store.Put(Record(3)) != 0);
        });
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no way to refuse here";
        EXPECT_EQ(child.exitCode, 0) << child.err;
        EXPECT_EQ(ReportField(child.err, "  Description= "), what) << child.err;
        EXPECT_EQ(ReportField(child.err, "  Error Code= ").find(std::to_string(error) + " : "), 0u) << child.err;
        EXPECT_EQ(Files(), before);
        EXPECT_EQ(Loaded(), "1 new t\n2 new t\n") << "they are there again at the next start";
    }

    TemporaryDirectory directory;
    std::string path;
};

const char Lost[] = " new (the record of this fault could not be read)\n";

// ---- What cannot be read now ----

TEST_F(FaultStoreTest, AListThatCannotBeOpenedEndsTheStart)
{
    MakeTwo();
    chmod(File("list").c_str(), 0);
    const auto before = Files();
    const ChildResult child = RunInChild([&] {
        DropPrivileges();
        FaultStore store(path.c_str());
        CHILD_CHECK(store.Load() != 0);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to drop privileges here";
    EXPECT_EQ(child.exitCode, 0) << child.err;
    EXPECT_EQ(ReportField(child.err, "  Description= "), File("list"));
    EXPECT_EQ(ReportField(child.err, "  Error Code= "), "13 : Permission denied");
    EXPECT_EQ(Files(), before);
    EXPECT_EQ(Loaded(), "1 new t\n2 new t\n");
}

TEST_F(FaultStoreTest, ARecordThatCannotBeOpenedEndsTheStart)
{
    MakeTwo();
    chmod(File(Second).c_str(), 0);
    ExpectRefused([] { DropPrivileges(); }, File(Second), EACCES);
}

TEST_F(FaultStoreTest, AnErrorOfTheDiskEndsTheStart)
{
    MakeTwo();
    ExpectRefused([] { MakeCallsFail({SYS_read}, EIO); }, File("list"), EIO);
    ExpectRefused([] { MakeCallsFail({SYS_getdents64}, EIO); }, path, EIO);
}

TEST_F(FaultStoreTest, AStartWithoutAFreeDescriptorEnds)
{
    MakeTwo();
    ExpectRefused([] { LimitDescriptors(3); }, path, EMFILE);
}

TEST_F(FaultStoreTest, AListThatIsMissingBesideItsFaultsEndsTheStart)
{
    MakeTwo();
    ASSERT_EQ(std::rename(File("list").c_str(), directory.File("list").c_str()), 0);
    EXPECT_EQ(Loaded(), "failed " + std::to_string(ErrorReporter::READING_FROM_FILE));
    EXPECT_EQ(Files().size(), 2u);
    ASSERT_EQ(std::rename(directory.File("list").c_str(), File("list").c_str()), 0);
    EXPECT_EQ(Loaded(), "1 new t\n2 new t\n");
}

TEST_F(FaultStoreTest, AListThatIsNoFileEndsTheStart)
{
    MakeTwo();
    std::remove(File("list").c_str());
    ASSERT_EQ(mkfifo(File("list").c_str(), 0666), 0);
    EXPECT_EQ(Loaded(), "failed " + std::to_string(ErrorReporter::READING_FROM_FILE));
    std::remove(File("list").c_str());
    ASSERT_EQ(mkdir(File("list").c_str(), 0777), 0);
    EXPECT_EQ(Loaded(), "failed " + std::to_string(ErrorReporter::READING_FROM_FILE));
    EXPECT_EQ(std::filesystem::status(File("list")).type(), std::filesystem::file_type::directory);
}

// Runs `body` in children in which memory fails, for good, behind ever more allocations, until it gives true: it may fail,
// or abort the process where a list cannot grow, but leaves
// what `check` finds. The number of children that did not succeed.
int FailingMemory(const std::function<bool()>& body, const std::function<void()>& check)
{
    const int most = 1000;
    for (int count = 0; count < most; count++) {
        const ChildResult child = RunInChild([&] {
            const MemoryFailure failure = MemoryFailure::After(count, NewObject | NewArray | Calloc);
            _exit(body() ? 0 : 1);
        });
        EXPECT_TRUE(child.exitCode == 0 || child.exitCode == 1 || child.signal == SIGABRT) << child.err;
        if (child.exitCode == 0)
            return count;
        check();
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "behind " << count << " allocations\n" << child.err;
            return most;
        }
    }
    ADD_FAILURE() << "it never succeeds";
    return most;
}

TEST_F(FaultStoreTest, WhereverMemoryFailsAStartLosesNothing)
{
    MakeTwo();
    const auto before = Files();
    const int failed = FailingMemory(
        [this] {
            FaultStore store(path.c_str());
            return store.Load() == 0 && Texts(store) == "1 new t\n2 new t\n";
        },
        [&] { EXPECT_EQ(Files(), before); });
    EXPECT_GT(failed, 20);
    EXPECT_EQ(Files(), before);
}

// ---- What was read and is broken ----

TEST_F(FaultStoreTest, AShortListIsSetAsideAndNeverOverwritten)
{
    MakeTwo();
    const std::string whole = ReadFile(File("list"));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {whole.substr(0, whole.size() - 1), "1 new t\n"},
        {whole + "more", "1 new t\n2 new t\n"},
        {whole.substr(0, 1), ""},
        {"", ""},
        {std::string("\x7f\xff", 2) + std::string(1000, '\xff'), ""}};
    int number = 1;
    for (const auto& [list, texts] : cases) {
        WriteFile(File("list"), list);
        EXPECT_EQ(Loaded(), texts);
        EXPECT_EQ(Loaded(), texts) << "the new list is whole";
        const std::string aside = number == 1 ? "list.broken" : "list.broken." + std::to_string(number);
        EXPECT_EQ(Files()[aside], list);
        number++;
    }
    EXPECT_EQ(Files()["list.broken"], cases[0].first);
    EXPECT_EQ(Files().size(), 3 + cases.size());
}

TEST_F(FaultStoreTest, AListWithANameThatNoFaultHasIsSetAside)
{
    MakeTwo();
    std::string list = ReadFile(File("list"));
    list[list.find("alpha/") + 5] = ':';
    WriteFile(File("list"), list);
    EXPECT_EQ(Loaded(), "2 new t\n");
    EXPECT_EQ(Files()["list.broken"], list);
}

TEST_F(FaultStoreTest, ThereIsAListWhileABrokenOneIsSetAside)
{
    MakeTwo();
    WriteFile(File("list"), ReadFile(File("list")).substr(0, 30));
    steps.clear();
    Loaded();
    EXPECT_EQ(std::find(steps.begin(), steps.end(), "unlink list"), steps.end());
    EXPECT_NE(std::find(steps.begin(), steps.end(), "rename list"), steps.end());
}

TEST_F(FaultStoreTest, ABrokenRecordIsSetAsideBeforeAMoveTakesItsPlace)
{
    MakeTwo();
    for (const char* broken : {"garbage", ""}) {
        WriteFile(File(Second), broken);
        FaultStore store(path.c_str());
        EXPECT_EQ(store.Load(), 0);
        EXPECT_EQ(Texts(store), "1 new t\n2" + std::string(Lost));
        EXPECT_FALSE(std::filesystem::exists(File(Second)));
        EXPECT_EQ(store.SetState(FaultId(2, "alpha"), "working"), 0);
    }
    EXPECT_EQ(Files()[std::string(Second) + ".broken"], "garbage");
    EXPECT_EQ(Files()[std::string(Second) + ".broken.2"], "");
    EXPECT_EQ(Loaded(), "1 new t\n2 working (the record of this fault could not be read)\n");
}

TEST_F(FaultStoreTest, ARecordThatCannotBeSetAsideEndsTheStart)
{
    MakeTwo();
    WriteFile(File(Second), "garbage");
    const auto before = Files();
    const ChildResult child = RunInChild([&] {
        MakeCallsFail({SYS_link, SYS_linkat}, ENOSPC);
        FaultStore store(path.c_str());
        CHILD_CHECK(store.Load() == ErrorReporter::WRITING_TO_FILE);
        CHILD_CHECK(store.SetState(FaultId(2, "alpha"), "working") != 0);
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(child.exitCode, 0) << child.err;
    EXPECT_EQ(Files(), before);
}

// ---- What cannot be written ----

TEST_F(FaultStoreTest, AFailedSaveLeavesNoFileBehind)
{
    MakeTwo();
    const auto before = Files();
    const std::vector<std::function<void()>> refusals = {[] { MakeCallsFail({SYS_fsync}, EIO); },
                                                         [] {
                                                             MakeCallsFail({SYS_renameat, SYS_renameat2}, EIO);
                                                         },
                                                         [] { MakeCallsFail({SYS_write}, EIO); },
                                                         [] { LimitDescriptors(3); }};
    for (const auto& refuse : refusals) {
        const ChildResult child = RunInChild([&] {
            FaultStore store(path.c_str());
            CHILD_CHECK(store.Load() == 0);
            refuse();
            CHILD_CHECK(store.Put(Record(1, "again", 1000)) != 0);
            CHILD_CHECK(store.Put(Record(3, "t", 1000)) != 0);
            CHILD_CHECK(store.Remove(FaultId(2, "alpha")) != 0);
            CHILD_CHECK(Texts(store) == "1 new t\n2 new t\n");
        });
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no system call filters here";
        EXPECT_EQ(child.exitCode, 0) << child.err;
        EXPECT_EQ(Files(), before);
    }
}

TEST_F(FaultStoreTest, AFullDiskLeavesNoFileBehind)
{
    const ChildResult child = RunInChild([&] {
        ChildNeeds(mount("none", directory.Path().c_str(), "tmpfs", 0, "size=64k") == 0);
        {
            FaultStore store(path.c_str());
            CHILD_CHECK(store.Load() == 0);
            CHILD_CHECK(store.Put(Record(1)) == 0);
            CHILD_CHECK(store.Put(Record(2, "t", 200000)) == ErrorReporter::WRITING_TO_FILE);
            CHILD_CHECK(store.Put(Record(1, "t", 200000)) == ErrorReporter::WRITING_TO_FILE);
            CHILD_CHECK(Files().size() == 2);
            CHILD_CHECK(store.Put(Record(2)) == 0);
            CHILD_CHECK(Loaded() == "1 new t\n2 new t\n");
        }
        umount(directory.Path().c_str());
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to mount a file system here";
    EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST_F(FaultStoreTest, WhatIsNotWholeInMemoryIsNotSaved)
{
    if (!MemoryLimit::IsPossible)
        GTEST_SKIP() << "no limit of memory here";
    MakeTwo();
    const auto before = Files();
    const FaultRecord large = Record(1, "t", 32 << 20);
    FaultStore store(path.c_str());
    ASSERT_EQ(store.Load(), 0);
    short status = 0;
    CaptureStderr([&] {
        const MemoryLimit limit(8 << 20);
        status = store.Put(large);
    });
    EXPECT_EQ(status, ErrorReporter::OUT_OF_MEMORY);
    EXPECT_EQ(Files(), before);
}

TEST_F(FaultStoreTest, WhereverMemoryFailsAChangeIsWholeOrNone)
{
    MakeTwo();
    const int failed = FailingMemory(
        [this] {
            FaultStore store(path.c_str());
            return store.Load() == 0 && store.Put(Record(3)) == 0;
        },
        [this] { EXPECT_EQ(Loaded(), "1 new t\n2 new t\n"); });
    EXPECT_GT(failed, 20);
    EXPECT_EQ(Loaded(), "1 new t\n2 new t\n3 new t\n");
}

// ---- What a power cut leaves ----

TEST_F(FaultStoreTest, IsOnTheDiskInAnOrderThatAPowerCutCannotHurt)
{
    typedef std::vector<std::string> Steps;
    steps.clear();
    FaultStore store(path.c_str());
    ASSERT_EQ(store.Load(), 0);
    const std::string parent = std::filesystem::path(directory.Path()).filename();
    EXPECT_EQ(steps, (Steps{"sync " + parent, "sync list.new", "rename list", "sync faults"}));
    steps.clear();
    ASSERT_EQ(store.Put(Record(1)), 0);
    const std::string first = First;
    const Steps record = {"sync " + first + ".new", "rename " + first, "sync faults"};
    Steps expected = record;
    for (const char* step : {"sync list.new", "rename list", "sync faults"})
        expected.push_back(step);
    EXPECT_EQ(steps, expected) << "the record before the list that names it";
    steps.clear();
    ASSERT_EQ(store.SetState(FaultId(1, "alpha"), "working"), 0);
    EXPECT_EQ(steps, record);
    steps.clear();
    ASSERT_EQ(store.Remove(FaultId(1, "alpha")), 0);
    EXPECT_EQ(steps, (Steps{"sync list.new", "rename list", "sync faults", "unlink " + first}));
}

TEST_F(FaultStoreTest, TakesNoChangeOnceItCannotKnowWhatTheDiskHolds)
{
    MakeTwo();
    FaultStore store(path.c_str());
    ASSERT_EQ(store.Load(), 0);
    CaptureStderr([&] {
        directoriesRefuse = true;
        EXPECT_EQ(store.Put(Record(3)), ErrorReporter::WRITING_TO_FILE);
        directoriesRefuse = false;
        const auto before = Files();
        EXPECT_EQ(store.Put(Record(4)), ErrorReporter::WRITING_TO_FILE);
        EXPECT_EQ(store.SetState(FaultId(1, "alpha"), "working"), ErrorReporter::WRITING_TO_FILE);
        EXPECT_EQ(store.Remove(FaultId(1, "alpha")), ErrorReporter::WRITING_TO_FILE);
        EXPECT_EQ(Files(), before);
    });
    EXPECT_EQ(Texts(store), "1 new t\n2 new t\n");
    EXPECT_EQ(Loaded(), "1 new t\n2 new t\n") << "until the next start";
}

TEST_F(FaultStoreTest, WhatACrashLeftHalfWrittenGoesAtTheNextStart)
{
    MakeTwo();
    const auto before = Files();
    WriteFile(File("list.new"), "half");
    WriteFile(File(std::string(First) + ".new"), "half");
    EXPECT_EQ(Loaded(), "1 new t\n2 new t\n");
    EXPECT_EQ(Files(), before);

    std::filesystem::remove_all(path); // a crash in the very first start
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    WriteFile(File("list.new"), "half");
    EXPECT_EQ(Loaded(), "");
    EXPECT_EQ(Files(), (std::map<std::string, std::string>{{"list", std::string(2, '\0')}}));
}

} // namespace
