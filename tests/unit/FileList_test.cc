#include "Misc/FileList.h"

#include <algorithm>
#include <string>
#include <vector>

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

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

TEST_F(FileListTest, FilesStayWhenTheListGoes)
{
    {
        FileList list(root.c_str(), "");
    }
    EXPECT_EQ(access(directory.File("a.log").c_str(), F_OK), 0);
}

} // namespace
