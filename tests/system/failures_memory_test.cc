// SPDX-License-Identifier: BSD-2-Clause
// Memory that fails once, at every allocation of every scenario: each run ends with a stated result, and what is used
// afterwards works, keeps no more memory, descriptors or kernel objects than before, and does not hang.
#include <iostream>

#include <malloc.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/failing_memory.h"
#include "tests/support/testing.h"
#include "tests/system/failures_testing.h"

using namespace testing_support;
using namespace failures_testing;

namespace {

const int NothingFailed = 42;

size_t HeapInUse() { return mallinfo2().uordblks; }

// Runs the scenario with its allocation behind the first `count` failing. What is lost then is lost each time: blocks of
// other sizes that serve meanwhile do not make the heap grow at every turn, nor do freed ones that the allocator keeps at
// hand as if they were in use, which are seven of a size: some scenarios have so many sizes that this takes 60 turns.
void RunWithFailure(const Scenario& scenario, const std::string& directory, long count)
{
    const int turns = 200;
    CHILD_CHECK(scenario.run(directory)); // what is kept for good is there from now on
    const Holdings before = HoldingsNow();
    bool hasGrown = true;
    size_t heap = 0;
    for (int i = 0; i < turns && hasGrown; i++) {
        ForgetLogs();
        nothingFails = false;
        const MemoryFailure failure = MemoryFailure::OfOne(count, scenario.throws ? AllCalls : AllCalls | ThrowingNew);
        scenario.run(directory);
        if (!failure.HasHappened())
            _exit(NothingFailed);
        hasGrown = HeapInUse() > heap;
        heap = HeapInUse();
    }
    CHILD_CHECK(!hasGrown);
    nothingFails = true;
    CHILD_CHECK(HoldingsNow() == before);
    CHILD_CHECK(scenario.run(directory));
}

class FailingMemory : public testing::TestWithParam<Scenario> {};

TEST_P(FailingMemory, LeavesAStatedResultAtEachAllocation)
{
    const Scenario& scenario = GetParam();
    MakeHostReady();
    TemporaryDirectory directory("/dev/shm");
    long count = 0;
    for (bool failed = true; failed; count += failed) {
        ForgetLogs();
        const ChildResult result = RunInChild([&] { RunWithFailure(scenario, directory.Path(), count); }, 60);
        failed = result.exitCode != NothingFailed;
        EXPECT_TRUE(!failed || EndedAsStated(result))
            << "allocation " << count << ": exit code " << result.exitCode << ", signal " << result.signal << "\n"
            << result.err;
        if (HasFailure())
            return;
    }
    std::cout << "failures injected: " << count << std::endl;
#ifndef __SANITIZE_ADDRESS__ // whose malloc does not fail
    EXPECT_GT(count, 0);
#endif
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FailingMemory, testing::ValuesIn(Scenarios),
                         [](const testing::TestParamInfo<Scenario>& each) { return each.param.name; });

} // namespace
