// SPDX-License-Identifier: BSD-2-Clause
// Between the tests and the build that measures coverage; elsewhere the first is null, the second unused.
#ifndef TESTS_SUPPORT_COVERAGE_H
#define TESTS_SUPPORT_COVERAGE_H

extern "C" {

/// Before the process makes its own system calls fail: starts a thread whose calls do not, to leave the counts. A child
/// forked later has none, and its counts are lost when they cannot be left otherwise.
[[gnu::weak]] void zeloo_keep_counts();

/// The name (see prctl) of a process from where it leaves its counts: whoever makes its system calls fail lets it be.
constexpr char NameOfLeaving[] = "leaves counts";

/// Lets memory be found again, in tests where it can fail; null in others.
[[gnu::weak]] void zeloo_let_memory_be();
}

#endif
