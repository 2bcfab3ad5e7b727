// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/FileList.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/failing_memory.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

std::string Lines(const std::vector<std::string>& names)
{
    std::string text = "FileList::dumpOn()\n";
    for (const std::string& name : names)
        text += name + "\n";
    return text;
}

const unsigned MostNames = 256000; // of a list

std::vector<std::string> walked;

int Collect(const char* path, const struct stat* status, int, struct FTW*)
{
    if (S_ISREG(status->st_mode))
        walked.push_back(path);
    return 0;
}

class FileListTest : public testing::Test {
protected:
    FileListTest() : root(directory.Path())
    {
        Make("b.log");
        Make("a.log");
        mkdir(directory.File("sub").c_str(), 0755);
        Make("sub/c.log");
        Make("sub/d.txt");
        mkdir(directory.File("sub/empty").c_str(), 0755);
        EXPECT_EQ(symlink("a.log", directory.File("link.log").c_str()), 0);
        EXPECT_EQ(symlink("nosuch", directory.File("dangling.log").c_str()), 0);
        EXPECT_EQ(symlink("sub", directory.File("linkdir").c_str()), 0);
        EXPECT_EQ(mkfifo(directory.File("fifo.log").c_str(), 0600), 0);
    }
    void Make(const std::string& name) { WriteFile(directory.File(name), name); }
    std::vector<std::string> Paths(std::vector<std::string> names)
    {
        for (std::string& name : names)
            name = directory.File(name);
        return names;
    }

    TemporaryDirectory directory;
    const std::string root;
};

TEST_F(FileListTest, ListsTheRegularFilesOfTheTreeInWalkOrder)
{
    FileList list(root.c_str(), "");
    walked.clear();
    ASSERT_EQ(nftw(root.c_str(), Collect, 8, FTW_PHYS), 0);
    EXPECT_EQ(Dump(list), Lines(walked));
    EXPECT_EQ(walked.size(), 4u);
    list.sort();
    EXPECT_EQ(Dump(list), Lines(Paths({"a.log", "b.log", "sub/c.log", "sub/d.txt"})));
}

TEST_F(FileListTest, ThePatternIsMatchedAgainstTheWholePath)
{
    FileList logs(root.c_str(), "*.log");
    logs.sort();
    EXPECT_EQ(Dump(logs), Lines(Paths({"a.log", "b.log", "sub/c.log"})));
    EXPECT_EQ(Dump(FileList(root.c_str(), "a*.log")), Lines({}));
    EXPECT_EQ(Dump(FileList(root.c_str(), "*/a*.log")), Lines(Paths({"a.log"})));
    EXPECT_EQ(Dump(FileList(root.c_str(), "*/su?/?.txt")), Lines(Paths({"sub/d.txt"})));
}

TEST_F(FileListTest, ANullPatternListsAll)
{
    FileList list(root.c_str(), nullptr);
    list.sort();
    EXPECT_EQ(Dump(list), Lines(Paths({"a.log", "b.log", "sub/c.log", "sub/d.txt"})));
}

TEST_F(FileListTest, ARootThatIsAFileIsListed)
{
    EXPECT_EQ(Dump(FileList(directory.File("a.log").c_str(), "")), Lines(Paths({"a.log"})));
    EXPECT_EQ(Dump(FileList(directory.File("a.log").c_str(), "*.txt")), Lines({}));
    EXPECT_EQ(Dump(FileList(directory.File("link.log").c_str(), "")), Lines({})) << "a link is not followed";
    EXPECT_EQ(Dump(FileList(directory.File("fifo.log").c_str(), "")), Lines({}));
}

TEST_F(FileListTest, ARootThatCannotBeWalkedGivesAnEmptyList)
{
    for (const char* name : {"/nosuch/root", "", static_cast<const char*>(nullptr)}) {
        FileList list(name, "");
        EXPECT_EQ(Dump(list), "FileList::dumpOn()\n");
        EXPECT_EQ(list.FindFile("x"), 0);
        list.sort();
        list.RemoveAll();
    }
}

TEST_F(FileListTest, FindsAPathThatIsEqual)
{
    FileList list(root.c_str(), "*.log");
    EXPECT_EQ(list.FindFile(directory.File("sub/c.log").c_str()), 1);
    EXPECT_EQ(list.FindFile(directory.File("a.log").c_str()), 1);
    EXPECT_EQ(list.FindFile(directory.File("sub/d.txt").c_str()), 0);
    EXPECT_EQ(list.FindFile("a.log"), 0);
    EXPECT_EQ(list.FindFile(""), 0);
    EXPECT_EQ(list.FindFile(nullptr), 0);
}

TEST_F(FileListTest, AddsNamesThatMatch)
{
    FileList list("/nosuch", "*.log");
    list.AddFileName("x.log");
    list.AddFileName("x.txt");
    list.AddFileName("x.log");
    EXPECT_EQ(Dump(list), Lines({"x.log", "x.log"}));
    FileList all("/nosuch", "");
    std::string name = "mine";
    all.AddFileName(name.c_str());
    name = "else";
    EXPECT_EQ(Dump(all), Lines({"mine"})) << "the list holds a copy";
}

TEST_F(FileListTest, RemoveAllDeletesTheFilesAndKeepsTheList)
{
    FileList list(root.c_str(), "*.log");
    const std::string before = Dump(list);
    EXPECT_EQ(CaptureStderr([&] {
                  list.RemoveAll();
                  list.RemoveAll();
              }),
              "");
    EXPECT_EQ(Dump(list), before);
    for (const char* name : {"a.log", "b.log", "sub/c.log"})
        EXPECT_NE(access(directory.File(name).c_str(), F_OK), 0) << name;
    for (const char* name : {"sub/d.txt", "sub/empty", "fifo.log"})
        EXPECT_EQ(access(directory.File(name).c_str(), F_OK), 0) << name;
}

TEST_F(FileListTest, ListsATreeDeeperThanTheOpenDirectories)
{
    std::string name = "deep";
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(mkdir(directory.File(name).c_str(), 0755), 0);
        Make(name + "/f");
        name += "/d";
    }
    const int descriptors = OpenDescriptors();
    FileList list(directory.File("deep").c_str(), "*/f");
    const std::string text = Dump(list);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 21);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(FileListTest, ANullNameIsTheEmptyOne)
{
    FileList logs("/nosuch", "*.log");
    logs.AddFileName(nullptr);
    EXPECT_EQ(Dump(logs), Lines({}));
    FileList all("/nosuch", "");
    all.AddFileName(nullptr);
    EXPECT_EQ(Dump(all), Lines({""}));
}

TEST_F(FileListTest, WithoutMemoryANameIsLeftOut)
{
    FileList list("/nosuch", "");
    list.AddFileName("first");
    for (const long allowed : {0, 1}) { // no string, or no text
        EXPECT_EQ(ReportsInFull([&] {
                      const MemoryFailure failure = MemoryFailure::After(allowed, NewObject | NewArray);
                      list.AddFileName("second");
                  }),
                  WarningReport("FileList", "OTHER", 0, "No room in the list for second."));
        EXPECT_EQ(Dump(list), Lines({"first"}));
    }
    const ChildResult child = RunInChild([&] {
        std::string names;
        const std::string reports = ReportsInFull([&] {
            MemoryFailure failure = MemoryFailure::After(5, NewObject | NewArray); // for some of the files
            FileList walk(root.c_str(), "");
            names = Dump(walk);
        });
        const int listed = CountOf(names, "\n") - 1;
        CHILD_CHECK(listed > 0 && listed < 4);
        CHILD_CHECK(reports == WarningReport("FileList", "OTHER", 0,
                                             "There are more files below " + root + " than the " +
                                                 std::to_string(listed) + " in the list."));
    });
    EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST_F(FileListTest, WithoutMemoryForThePatternNoFileIsListed)
{
    FileList* list = nullptr;
    const std::string reports = ReportsInFull([&] {
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CStringRep) + sizeof "*.txt", NewObject);
        list = new FileList(root.c_str(), "*.txt");
    });
    EXPECT_EQ(reports,
              WarningReport("FileList", "OTHER", 0, "There are more files below " + root + " than the 0 in the list."));
    EXPECT_EQ(Dump(*list), Lines({}));
    EXPECT_EQ(ReportsInFull([&] { list->AddFileName("any.log"); }),
              WarningReport("FileList", "OTHER", 0, "No room in the list for any.log."));
    list->RemoveAll();
    delete list;
    EXPECT_EQ(access((root + "/a.log").c_str(), F_OK), 0);
}

TEST_F(FileListTest, AFullListTakesNoMore)
{
    FileList list("/nosuch", "");
    for (unsigned i = 0; i < MostNames; i++)
        list.AddFileName("x");
    EXPECT_EQ(ReportsInFull([&] { list.AddFileName("y"); }),
              WarningReport("FileList", "OTHER", 0, "No room in the list for y."));
    EXPECT_EQ(list.FindFile("x"), 1);
    EXPECT_EQ(list.FindFile("y"), 0);
    EXPECT_EQ(CountOf(Dump(list), "\n"), int(MostNames) + 1);
}

TEST_F(FileListTest, ATreeOfMoreFilesThanAListHoldsIsListedAsFarAsItFits)
{
    if (!InSandbox())
        GTEST_SKIP() << "a quarter of a million names need a file system that goes with the test";
    const std::string many = "/dev/shm/many";
    ASSERT_EQ(mkdir(many.c_str(), 0755), 0);
    WriteFile(many + "/0", "");
    for (unsigned i = 1; i <= MostNames; i++)
        ASSERT_EQ(link((many + "/0").c_str(), (many + "/" + std::to_string(i)).c_str()), 0) << i;
    std::string names;
    const std::string reports = ReportsInFull([&] { names = Dump(FileList(many.c_str(), "")); });
    EXPECT_EQ(reports, WarningReport("FileList", "OTHER", 0,
                                     "There are more files below " + many + " than the 256000 in the list."));
    EXPECT_EQ(CountOf(names, "\n"), int(MostNames) + 1);
    EXPECT_EQ(ReportsInFull([&] { names = Dump(FileList(many.c_str(), "*/1?????")); }), "");
    EXPECT_EQ(CountOf(names, "\n"), 100001);
}

TEST_F(FileListTest, ATreeDeeperThanPathsReachIsListedAsFarAsTheyReach)
{
    if (!InSandbox())
        GTEST_SKIP() << "so deep a tree needs a file system that goes with the test";
    const std::string deep = "/dev/shm/deep";
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    WriteFile(deep + "/z", "");
    int folder = open(deep.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < 30000; i++) {
        const int file = openat(folder, "f", O_WRONLY | O_CREAT, 0600);
        ASSERT_GE(file, 0) << i;
        close(file);
        ASSERT_EQ(mkdirat(folder, "d", 0700), 0) << i;
        const int next = openat(folder, "d", O_RDONLY | O_DIRECTORY);
        close(folder);
        folder = next;
    }
    close(folder);

    const int descriptors = OpenDescriptors();
    const ChildResult child = RunInChild([&] {
        std::string names;
        const std::string reports = ReportsInFull([&] { names = Dump(FileList(deep.c_str(), "")); });
        const int depth = (PATH_MAX - 1 - int(deep.size())) / 2; // of files named ".../d/d/f"
        CHILD_CHECK(CountOf(names, "/f\n") == depth);
        CHILD_CHECK(CountOf(names, "/z\n") == 1);
        const std::string listed = std::to_string(CountOf(names, "\n") - 1);
        CHILD_CHECK(reports == WarningReport("FileList", "OTHER", ENAMETOOLONG,
                                             "There are more files below " + deep + " than the " + listed +
                                                 " that could be listed."));
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.exitCode, 0) << child.err;
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(FileListTest, FilesStayWhenTheListGoes)
{
    {
        FileList list(root.c_str(), "");
    }
    EXPECT_EQ(access(directory.File("a.log").c_str(), F_OK), 0);
}

} // namespace
