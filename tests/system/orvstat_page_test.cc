// SPDX-License-Identifier: BSD-2-Clause
// The page for operators shows what orvstat writes: its commands are run here, on a host as the page describes it.
#include <csignal>
#include <fstream>
#include <string>

#include <sys/prctl.h>

#include "tests/system/orvstat_testing.h"

using namespace orvstat_testing;

namespace {

const char Section[] = "## Servers and their queues: orvstat";

// What the blocks of the section show, one behind the other.
std::string PageText()
{
    std::ifstream page(OPERATING_PAGE);
    std::string text;
    bool isHere = false;
    bool isBlock = false;
    for (std::string line; std::getline(page, line);) {
        if (!isBlock && line.compare(0, 3, "## ") == 0)
            isHere = line == Section;
        else if (isHere && line.compare(0, 3, "```") == 0)
            isBlock = line == "```console";
        else if (isHere && isBlock)
            text += line + "\n";
    }
    return text;
}

// What running a command shows, with times in place of those of this run.
std::string Transcript(const std::string& command)
{
    const ChildResult result = RunProgram("/bin/sh", {"-c", Replaced(command, "orvstat", Orvstat) + " 2>&1"});
    const std::string text = Replaced(Replaced(result.out, "[0-9]+\\.[0-9] ms", "0.2 ms"),
                                      "[0-9][0-9]([:/])[0-9][0-9]\\1[0-9][0-9]", "12:00:00");
    return "$ " + command + "\n" + text;
}

pid_t StartProgramAt(pid_t pid, const char* program, const std::vector<std::string>& arguments)
{
    return StartChildAt(pid, [&] { Execute(ProgramUnderTest(program), arguments); });
}

// A server that never looks at its queue.
pid_t StartServerAt(pid_t pid, const char* name, const char* program)
{
    MakeKeyFile(name);
    const pid_t started = StartChildAt(pid, [&] {
        prctl(PR_SET_NAME, program);
        Server server(name);
        CHILD_CHECK(server.Created());
        for (;;)
            pause();
    });
    EXPECT_TRUE(WaitUntil([&] { return Client(name).Connected() != 0; }));
    return started;
}

pid_t StartBlockedSenderAt(pid_t pid, const char* name, pid_t server)
{
    const int qid = QueueOf(name);
    const pid_t started = StartChildAt(pid, [&] {
        const std::string record(1300, 'x');
        SendRaw(qid, server, record.data(), record.size());
    });
    EXPECT_TRUE(WaitUntil([&] { return WaitsOnAQueue(started); }));
    return started;
}

TEST_F(OrvstatTest, ThePageShowsWhatItWrites)
{
    MakeKeyFile("hello");
    const pid_t hello = StartProgramAt(4711, HELLO_SERVER, {});
    if (hello != 4711)
        GTEST_SKIP() << "process ids cannot be chosen here";
    ASSERT_TRUE(WaitUntil([&] { return WaitsOnAQueue(hello); }));
    EXPECT_EQ(WaitForExit(StartProgramAt(4720, HELLO_CLIENT, {"Ada"})), 0);
    const pid_t printer = StartServerAt(4905, "printer", "printerd");
    EndChild(printer, SIGKILL);
    SetQueueLimit(16384);
    const pid_t archive = StartServerAt(4803, "archive", "archived");
    const pid_t filler = StartChildAt(4808, [&] {
        const std::string record(1300, 'x');
        while (SendRaw(QueueOf("archive"), archive, record.data(), record.size(), IPC_NOWAIT) == 0)
            ;
        const std::string little(100, 'x');
        while (SendRaw(QueueOf("archive"), archive, little.data(), little.size(), IPC_NOWAIT) == 0)
            ;
    });
    EXPECT_EQ(WaitForExit(filler), 0);
    const pid_t first = StartBlockedSenderAt(4810, "archive", archive);
    const pid_t second = StartBlockedSenderAt(4812, "archive", archive);
    std::string all;
    WaitUntil(
        [&] { // a server that has had a client looks up now and then
            all = Transcript("orvstat");
            return PageText().compare(0, all.size(), all) == 0;
        },
        3);
    for (const char* command :
         {"orvstat clean printer", "orvstat clean hello", "orvstat ping hello", "orvstat ping archive"})
        all += Transcript(command);
    EXPECT_EQ(PageText(), all) << "the page is to show:\n" << all;

    for (const pid_t client : {first, second})
        EndChild(client);
    for (const pid_t server : {hello, archive})
        EXPECT_EQ(EndChild(server, SIGTERM), 0);
}

} // namespace
