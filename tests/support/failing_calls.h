// SPDX-License-Identifier: BSD-2-Clause
// System calls that fail on demand: those of a child process that are watched, from its call of Begin to that of End, and
// of the processes it forks in between, until they become other programs:
//
//     FailingCalls calls({SYS_read}, {EIO, 2, 1}); // the third one fails, and no other
//     const ChildResult result = calls.Run([&] {
//         calls.Begin();
//         ...
//         calls.End();
//     });
//
// The host stops a process at each such call and asks this one, which counts it and lets it happen or fail. A host may
// not offer that: then the child ends with the exit code NotPossibleHere.
#ifndef TESTS_SUPPORT_FAILING_CALLS_H
#define TESTS_SUPPORT_FAILING_CALLS_H

#include <atomic>
#include <climits>
#include <functional>
#include <map>
#include <vector>

#include <sys/types.h>

#include "tests/support/hostcalls.h"
#include "tests/support/testing.h"

struct seccomp_notif;

namespace testing_support {

class FailingCalls {
public:
    /// Which of the watched calls fail: `count` of them behind the first `before`, with `error`.
    struct Rule {
        int error = 0; // 0: none fails
        long before = 0;
        long count = LONG_MAX;
    };

    /// Watches the calls of these numbers, of which sendmsg cannot be one. An fstat is SYS_fstat, however it is made.
    explicit FailingCalls(std::vector<long> numbers) : FailingCalls(std::move(numbers), Rule()) {}
    FailingCalls(std::vector<long> numbers, const Rule& rule);
    ~FailingCalls();
    FailingCalls(const FailingCalls&) = delete;
    FailingCalls& operator=(const FailingCalls&) = delete;

    /// RunInChild.
    ChildResult Run(const std::function<void()>& body, int seconds = 60);
    /// In the child, once: its calls count and fail from now on.
    void Begin();
    /// In the child: they do no more.
    void End() { shared->isOn = false; }

    /// How many calls of that number were made.
    long Made(long number) const;
    /// How many failed.
    long Failed() const { return failed; }

private:
    struct Shared {
        std::atomic<bool> isOn;
    };

    void Serve(pid_t pid, int seconds);
    bool Answer(int listener);
    bool Counts(const struct seccomp_notif& call) const;

    const std::vector<long> numbers;
    const Rule rule;
    Shared* shared; // with the child
    int handover[2];
    pid_t child = -1;
    std::map<long, long> made;
    long total = 0;
    long failed = 0;
};

} // namespace testing_support

#endif
