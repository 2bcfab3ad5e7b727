// SPDX-License-Identifier: BSD-2-Clause
// The printers for gdb, in gdb.
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

namespace {

const std::string Gdb = "/usr/bin/gdb";

class GdbPrinters : public testing::Test {
protected:
    void SetUp() override
    {
        static const std::string lack = Lack();
        if (!lack.empty())
            GTEST_SKIP() << lack;
    }
    // Why gdb cannot be used here; empty when it can.
    static std::string Lack()
    {
        if (access(Gdb.c_str(), X_OK) != 0)
            return "needs gdb";
        if (RunProgram(Gdb, {"-nx", "-batch", "-ex", "python print('works')"}).out != "works\n")
            return "needs a gdb with Python";
        const ChildResult stopped = Run("/bin/true", {"starti"}, {"print 1"});
        return stopped.out.find("$1 = 1") != std::string::npos ? "" : "gdb cannot run a program here: " + stopped.err;
    }
    // What gdb prints for the commands, in Show of the program when its values are there.
    static ChildResult Run(const std::string& program, const std::vector<std::string>& first,
                           const std::vector<std::string>& commands)
    {
        std::vector<std::string> arguments = {"-nx", "-batch", "-ex", "set debuginfod enabled off"};
        const auto add = [&](const std::string& command) {
            arguments.emplace_back("-ex");
            arguments.push_back(command);
        };
        for (const std::string& command : first)
            add(command);
        for (const char* command : {"set startup-with-shell off", "break StopHere", "run", "up"})
            add(command);
        for (const std::string& command : commands)
            add(command);
        arguments.push_back(program);
        return RunProgram(Gdb, arguments);
    }

    static const std::string Static, Shared, Source;
};

const std::string GdbPrinters::Static = VALUES_STATIC;
const std::string GdbPrinters::Shared = VALUES;
const std::string GdbPrinters::Source = "source " PRINTERS;

const std::string TextAndArrays =
    "$1 = \"a \\\"text\\\"\"\n"
    "$2 = \"\"\n"
    "$3 = Buffer of 4 bytes = {data = \"a\\000b\\377\"}\n"
    "$4 = Buffer of 0 bytes\n"
    "$5 = CStringSafeArray of 2 = {\"one\", FaultId = {id = 7, node = \"beta\", text = \"beta/00000007\"}}\n"
    "$6 = CStringSafeArray of 0\n"
    "$7 = FaultIdSafeArray of 1 = {FaultId = {id = 42, node = \"alpha\", text = \"alpha/00000042\"}}\n"
    "$8 = FaultId = {id = 42, node = \"alpha\", text = \"alpha/00000042\"}\n"
    "$9 = 1.2.10\n"
    "$10 = 1 (not valid)\n"
    "$11 = ulongArray of 3 = {0, 10, 20}\n";

const std::vector<std::string> PrintAll = {"print text",    "print buffer", "print nothing", "print strings",
                                           "print none",    "print faults", "print fault",   "print number",
                                           "print invalid", "print cells"};

// What is printed behind the line that shows where the program stopped.
std::string Values(const std::string& text)
{
    const size_t at = text.find("$1 = ");
    return at == std::string::npos ? text : text.substr(at);
}

std::vector<std::string> Commands()
{
    std::vector<std::string> commands = PrintAll;
    commands.insert(commands.begin() + 1, "print empty");
    return commands;
}

TEST_F(GdbPrinters, ShowWhatTheValuesStandFor)
{
    EXPECT_EQ(Values(Run(Static, {Source}, Commands()).out), TextAndArrays);
}

TEST_F(GdbPrinters, WithoutThemMembersAreShown)
{
    EXPECT_NE(Values(Run(Static, {}, Commands()).out).find("cp = 0x"), std::string::npos) << "the test itself";
}

TEST_F(GdbPrinters, GdbsOwnSettingsHold)
{
    const std::string text = Values(
        Run(Static, {Source}, {"set print elements 10", "print longText", "print reference", "print/r fault"}).out);
    EXPECT_EQ(text.substr(0, text.find('\n')), "$1 = \"xxxxxxxxxx\"...");
    EXPECT_NE(text.find("\"a \\\"text\\\"\""), std::string::npos) << text;
    EXPECT_NE(text.find("myId = 42"), std::string::npos) << text;
}

TEST_F(GdbPrinters, WhatIsDamagedIsSaidToBe)
{
    const std::string text = Values(Run(Static, {Source}, {"print *damaged", "print *unmade"}).out);
    EXPECT_EQ(Replaced(text, "0x55[0-9a-f]+", "ADDRESS"),
              "$1 = <damaged: Cannot access memory at address ADDRESS>\n$2 = CStringSafeArray of 0\n");
}

// A tree as an installation makes it, with the name under which gdb looks for the printers of a shared object.
TEST_F(GdbPrinters, AreLoadedWithTheSharedLibrary)
{
    const TemporaryDirectory tree;
    char* const real = realpath(LIBZELOO, nullptr);
    const std::string library = real != nullptr ? real : "";
    free(real);
    std::string directory = tree.Path();
    for (size_t at = 0; at != std::string::npos; at = library.find('/', at + 1))
        mkdir((directory = tree.Path() + library.substr(0, at)).c_str(), 0755);
    WriteFile(tree.Path() + library + "-gdb.py", ReadFile(PRINTERS));
    const std::vector<std::string> first = {"set auto-load scripts-directory " + tree.Path(),
                                            "set auto-load safe-path " + tree.Path()};
    EXPECT_EQ(Values(Run(Shared, first, Commands()).out), TextAndArrays);
}

// The commands and answers of the page are those of gdb.
TEST_F(GdbPrinters, TheirTextInTheDocumentationIsWhatGdbPrints)
{
    const std::string page = ReadFile(OPERATING);
    const std::string prompt = "    (gdb) ";
    std::vector<std::string> commands;
    std::string answers;
    for (size_t at = page.find(prompt); at < page.size() && page[at] == ' ';) {
        const size_t end = page.find('\n', at);
        const std::string line = page.substr(at, end - at);
        if (line.compare(0, prompt.size(), prompt) == 0)
            commands.push_back(line.substr(prompt.size()));
        else
            answers += line.substr(4) + "\n";
        at = end + 1;
    }
    ASSERT_EQ(commands.size(), 5u);
    EXPECT_EQ(Values(Run(Static, {Source}, commands).out), answers);
}

} // namespace
