// SPDX-License-Identifier: BSD-2-Clause
// What the library's file operations do without memory for the block of a stream, and with a directory.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/FaultId.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/ipctli.h"
#include "tests/support/testing.h"

using namespace testing_support;

static bool memoryFails = false; // all that `new` gives

// All forms, so that what one allocates any frees.
static void* Allocate(std::size_t n) { return memoryFails ? nullptr : std::malloc(n != 0 ? n : 1); }

static void* AllocateOrThrow(std::size_t n)
{
    void* block = Allocate(n);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void* operator new(std::size_t n) { return AllocateOrThrow(n); }
void* operator new[](std::size_t n) { return AllocateOrThrow(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return Allocate(n); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return Allocate(n); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

namespace {

// Runs `body` while no `new` finds memory. It must throw nothing and leave no descriptor open.
template <class Body>
void WithoutMemory(Body body)
{
    const int descriptors = OpenDescriptors();
    bool threw = false;
    memoryFails = true;
    try {
        body();
    } catch (const std::bad_alloc&) {
        threw = true;
    }
    memoryFails = false;
    EXPECT_FALSE(threw);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

class FileStreamTest : public testing::Test {
protected:
    FileStreamTest() : name(directory.File("file")) { WriteFile(name, "content"); }

    TemporaryDirectory directory;
    const std::string name;
};

TEST_F(FileStreamTest, ABufferIsNotLoadedWithoutMemory)
{
    Buffer bytes;
    short result = -1;
    WithoutMemory([&] { result = bytes.LoadBufferFromFile(name.c_str()); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(bytes.Size(), 0u);
    EXPECT_EQ(bytes.LoadBufferFromFile(name.c_str()), 1);
    EXPECT_STREQ(bytes.GetCString(), "content");
}

TEST_F(FileStreamTest, ABufferIsNotSavedWithoutMemory)
{
    Buffer bytes;
    bytes.Append("other");
    short result = -1;
    const std::string reports =
        ReportsInFull([&] { WithoutMemory([&] { result = bytes.SaveBufferToFile(name.c_str(), 0); }); });
    EXPECT_EQ(result, 16);
    EXPECT_EQ(reports, WarningReport("buffer", "Failed to write to a file.", ENOMEM, name));
    EXPECT_EQ(ReadFile(name), "content") << "what could not be replaced must stay";
}

TEST_F(FileStreamTest, ATextIsNotReadWithoutMemory)
{
    char* text = nullptr;
    WithoutMemory([&] { text = CString::FileNameToCharPtr(name.c_str()); });
    EXPECT_EQ(text, nullptr);
    delete[] text;
}

TEST_F(FileStreamTest, AFaultListIsNeitherReadNorWrittenWithoutMemory)
{
    FaultIdList list(name.c_str());
    list.AddFaultId(FaultId(1, "alpha"));
    const std::string reports = ReportsInFull([&] {
        WithoutMemory([&] { list.Load(); });
        WithoutMemory([&] { list.Save(); });
    });
    const std::string report = WarningReport("FaultId", "Failed to open a file.", ENOMEM, name);
    EXPECT_EQ(reports, report + report);
    EXPECT_EQ(list.MyQuantity(), 1);
    EXPECT_EQ(ReadFile(name), "content");
}

TEST_F(FileStreamTest, TheServerHostIsNotReadWithoutMemory)
{
    if (!InSandbox())
        GTEST_SKIP() << "needs a private /var/orv/data";
    WriteFile("/var/orv/data/orvdserver.host", "kestrel\n");
    const char* host = "unread";
    WithoutMemory([&] { host = IPCTli::get_default_hostname("orvd"); });
    EXPECT_EQ(host, nullptr);
    EXPECT_STREQ(IPCTli::get_default_hostname("orvd"), "kestrel");
}

TEST_F(FileStreamTest, ADirectoryIsNoEmptyFile)
{
    for (const std::string& path : {std::string("/proc"), std::string("/sys"), directory.Path()}) {
        Buffer bytes;
        EXPECT_EQ(bytes.LoadBufferFromFile(path.c_str()), 0) << path;
        char* text = CString::FileNameToCharPtr(path.c_str());
        EXPECT_EQ(text, nullptr) << path;
        delete[] text;
        FaultIdList list(path.c_str());
        list.AddFaultId(FaultId(1, "alpha"));
        EXPECT_EQ(ReportsInFull([&] { list.Load(); }),
                  WarningReport("FaultId", "Failed to read from a file.", EISDIR, path));
        EXPECT_EQ(list.MyQuantity(), 1) << path;
    }
}

TEST_F(FileStreamTest, ADirectoryNamesNoServerHost)
{
    if (!InSandbox())
        GTEST_SKIP() << "needs a private /var/orv/data";
    const std::string path = "/var/orv/data/orvdserver.host";
    std::remove(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(IPCTli::get_default_hostname("orvd"), nullptr);
    EXPECT_EQ(rmdir(path.c_str()), 0);
}

TEST_F(FileStreamTest, ANullNameIsThatOfNoFile)
{
    Buffer bytes;
    bytes.Append("x");
    EXPECT_EQ(CString::FileNameToCharPtr(nullptr), nullptr);
    EXPECT_EQ(ReportsInFull([&] { EXPECT_EQ(bytes.SaveBufferToFile(nullptr, 0), 16); }),
              WarningReport("buffer", "Failed to write to a file.", EFAULT, ""));
    EXPECT_EQ(bytes.LoadBufferFromFile(nullptr), 0);
}

} // namespace
