// SPDX-License-Identifier: BSD-2-Clause
// What a program's own static objects do with the library before main and behind it.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// Runs the program, and expects that each use gave `use` and that all uses together wrote `errors`, without their times
// and numbers, twice.
void ExpectBeforeAndBehindMain(const char* part, const std::string& use, const std::string& errors)
{
    setenv("BEFORE_MAIN", part, 1);
    const ChildResult child = RunProgram(ProgramUnderTest(BEFORE_MAIN), {});
    unsetenv("BEFORE_MAIN");
    EXPECT_EQ(child.signal, 0) << part;
    EXPECT_EQ(child.exitCode, 0) << part;
    EXPECT_EQ(child.out, use + "main\n" + use) << part;
    EXPECT_EQ(WithoutVariables(child.err), errors + errors) << part;
}

const char ShortOf[] = "Error: short read in Cstring scanFrom. read: ";

TEST(BeforeMain, AString) { ExpectBeforeAndBehindMain("string", ShortOf + std::string("4 expected: 9\nabc!\n"), ""); }

TEST(BeforeMain, AnArray)
{
    ExpectBeforeAndBehindMain("array", "1\n", "Error: invalid index to SafeArrayBase::InsertPtr()\n");
}

TEST(BeforeMain, ABuffer)
{
    ExpectBeforeAndBehindMain("buffer", "16\n",
                              WarningReport("buffer", "Failed to write to a file.", ENOENT, "/nosuch/file"));
}

TEST(BeforeMain, AStream)
{
    ExpectBeforeAndBehindMain("stream", "4|name12|\n" + (ShortOf + std::string("2 expected: 3\na\n")), "");
}

TEST(BeforeMain, FactsAboutFiles)
{
    ExpectBeforeAndBehindMain("file", "0\n<>\n0\n",
                              ": error in FileInfo::FileSize\n: error in FileInfo::FileMTime (/nosuch/file)\n");
}

TEST(BeforeMain, Values) { ExpectBeforeAndBehindMain("values", "19 1\n", ""); }

} // namespace
