// SPDX-License-Identifier: BSD-2-Clause
// Signals at any instant: SIGTERM, SIGUSR1, SIGALRM and SIGCLD come at the system-call borders, and between the instructions,
// of a scenario for each unit that blocks or has critical sections. SIGTERM ends it in the stated way and nothing is left;
// with the others it gives what it gives without. ZELOO_INSTANTS=all takes every instant, a number so many of each.
#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include <sys/wait.h>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "svr4/signal.h"
#include "tests/system/signals_testing.h"

using namespace testing_support;
using namespace signals_testing;

#if defined(__SANITIZE_ADDRESS__)
// At an exit in the middle of anything there is nothing to be said about leaks, and the lock of the allocator may be held.
extern "C" int __lsan_is_turned_off() { return 1; }
#endif

namespace {

struct Kind {
    const char* name;
    int sig;
};

const Kind Kinds[] = {{"SIGTERM", SIGTERM}, {"SIGUSR1", SIGUSR1}, {"SIGALRM", SIGALRM}, {"SIGCLD", SIGCHLD}};

// Between the instructions of a scenario, in any form: each of the first has a run that goes there step by step, and a
// dump takes milliseconds.
const long MostTerminations = 300;
const long MostDumps = 3000;

#if defined(__SANITIZE_ADDRESS__) // which makes all of it many times slower
const long MostInShortForm = 8;
const bool StepsInShortForm = false;
#else
const long MostInShortForm = 16;
const bool StepsInShortForm = true;
#endif

const long MostOfSlow = 10; // instants of a scenario that takes seconds

// The instants of a form, at most.
long MostInstants(long inShortForm)
{
    const char* asked = std::getenv("ZELOO_INSTANTS");
    if (asked == nullptr)
        return inShortForm;
    return std::string(asked) == "all" ? LONG_MAX : std::atol(asked);
}

bool IsLongForm() { return std::getenv("ZELOO_INSTANTS") != nullptr; }

long LinesOf(const char* file) { return CountOf(ReadFile(file), "\n"); }

long KernelObjects()
{
    return LinesOf("/proc/sysvipc/msg") + LinesOf("/proc/sysvipc/sem") + LinesOf("/proc/sysvipc/shm");
}

class SignalsAtAnyInstant : public testing::TestWithParam<Scenario> {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs namespaces";
        static char program[] = "/opt/orv/bin/tester";
        static char* arguments[] = {program, nullptr};
        ProgInfo::Initialize(1, arguments, arguments + 1, "3.4");
        MakeKeyFile("signals");
        WriteFile("/etc/services", "orvd 4711/tcp\n");
        if (scenario.partner)
            partner = StartChild(scenario.partner);
        reference = Run(0, {SystemCalls, -1});
        kernelObjects = KernelObjects();
        if (CouldNotBeFollowed(reference))
            GTEST_SKIP() << "no way to follow a process here";
        ASSERT_TRUE(EndedInOrder(reference)) << reference.err;
    }
    void TearDown() override
    {
        if (partner > 0)
            EndChild(partner, SIGTERM);
        partner = 0;
        std::cout << "signals sent: " << sent << std::endl;
    }

    static bool CouldNotBeFollowed(const Outcome& outcome)
    {
        return WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == NotPossibleHere;
    }
    static bool EndedInOrder(const Outcome& outcome)
    {
        return !outcome.hung && WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 0;
    }

    Outcome Run(int sig, const Instants& instants)
    {
        const TemporaryDirectory directory;
        Outcome outcome = Follow(scenario, directory.Path(), sig, instants);
        sent += outcome.sent;
        left = sig == SIGTERM && scenario.leftovers ? scenario.leftovers(directory.Path()) : "";
        return outcome;
    }

    // What is to be seen of a run that was sent `sig`, if it was.
    void Expect(const Outcome& outcome, int sig)
    {
        EXPECT_TRUE(EndedInOrder(outcome)) << (outcome.hung ? "it hung" : "status ") << outcome.status << "\n"
                                           << outcome.text << outcome.err;
        if (sig == SIGTERM && outcome.sent > 0) {
            EXPECT_EQ(outcome.terminations, 1);
            EXPECT_EQ(left, "");
            EXPECT_TRUE(WaitUntil([this] { return KernelObjects() == kernelObjects; }, 5)) << KernelObjects();
            return;
        }
        if (sig == SIGUSR1 && outcome.sent > 0)
            ExpectWholeDump(outcome.dump);
        EXPECT_EQ(outcome.terminations, 0);
        EXPECT_EQ(outcome.state, reference.state);
        const bool isAsStated = outcome.sent > 0 && std::find(scenario.interrupted.begin(), scenario.interrupted.end(),
                                                              outcome.text) != scenario.interrupted.end();
        if (isAsStated)
            return;
        EXPECT_EQ(outcome.text, reference.text);
        EXPECT_EQ(outcome.out, reference.out);
#ifdef __SANITIZE_ADDRESS__
        if (sig == SIGUSR1)
            return; // a copy that found something half changed, and was made again, has said so
#endif
        EXPECT_EQ(outcome.err, reference.err);
    }

    static void ExpectWholeDump(const std::string& dump)
    {
        const std::string last = "*** End Dump of all Monitored Objects ***\n";
        EXPECT_EQ(dump.find("SIGNAL 10 caught...initiating dump...\nMonitored Objects: \n"), 0u) << dump;
        EXPECT_TRUE(dump.size() > last.size() && dump.substr(dump.size() - last.size()) == last) << dump;
        EXPECT_EQ(dump.find("left out"), std::string::npos) << dump;
        EXPECT_NE(dump.find("\nthe witness\n"), std::string::npos) << dump;
    }

    void ExpectAtSystemCalls(int sig)
    {
        const long most = scenario.isSlow ? MostOfSlow : reference.instants;
        const long count = std::min(MostInstants(scenario.most != 0 ? scenario.most : MostInShortForm), most);
        for (long i = 0; i < count && !HasFailure(); i++) {
            const long at = (2 * i + 1) * reference.instants / (2 * count);
            SCOPED_TRACE("system call border " + std::to_string(at) + " of " + std::to_string(reference.instants));
            Expect(Run(sig, {SystemCalls, at}), sig);
        }
    }

    void ExpectBetweenInstructions(int sig, long instructions)
    {
        long count = std::min(MostInstants(sig == SIGTERM ? 2 : 25), instructions);
        if (sig != SIGTERM) { // what the program survives comes many times in a run
            count = sig == SIGUSR1 ? std::min(count, MostDumps) : count;
            Expect(Run(sig, {Instructions, -1, instructions / count}), sig);
            return;
        }
        count = std::min(count, MostTerminations);
        for (long i = 0; i < count && !HasFailure(); i++) {
            const long at = (2 * i + 1) * instructions / (2 * count);
            SCOPED_TRACE("instruction " + std::to_string(at) + " of " + std::to_string(instructions));
            Expect(Run(sig, {Instructions, at}), sig);
        }
    }

    const Scenario& scenario = GetParam();
    pid_t partner = 0;
    Outcome reference;
    long kernelObjects = 0;
    long sent = 0;
    std::string left;
};

TEST_P(SignalsAtAnyInstant, EndTheProgramAsStatedOrChangeNothing)
{
    for (const Kind& kind : Kinds) {
        if (scenario.isSlow && kind.sig != SIGALRM && !IsLongForm())
            continue;
        SCOPED_TRACE(kind.name);
        ExpectAtSystemCalls(kind.sig);
    }
}

// The critical sections that make no system calls.
TEST_P(SignalsAtAnyInstant, DoSoBetweenInstructions)
{
    const bool isTaken =
        IsLongForm() ? scenario.steps != Scenario::NoSteps : StepsInShortForm && scenario.steps == Scenario::ShortSteps;
    if (!isTaken)
        GTEST_SKIP() << "too long for single steps";
    const Outcome counted = Run(0, {Instructions, -1});
    Expect(counted, 0);
    for (const Kind& kind : Kinds) {
        SCOPED_TRACE(kind.name);
        ExpectBetweenInstructions(kind.sig, counted.instants);
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, SignalsAtAnyInstant, testing::ValuesIn(AllScenarios()),
                         [](const testing::TestParamInfo<Scenario>& each) { return each.param.name; });

} // namespace
