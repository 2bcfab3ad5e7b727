// SPDX-License-Identifier: BSD-2-Clause
// The calls that a program makes of the host, as filters see them. Tests name a call by its SYS_ number; which call, or
// which part of one, the C library makes of it differs with the processor.
#ifndef TESTS_SUPPORT_HOSTCALLS_H
#define TESTS_SUPPORT_HOSTCALLS_H

#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/syscall.h>

// Calls that some hosts lack, or have under another name. A negative number stands for itself alone.
#if !defined(SYS_newfstatat) && defined(SYS_fstatat64)
#define SYS_newfstatat SYS_fstatat64
#endif
#ifndef SYS_accept
#define SYS_accept (-1)
#endif
#ifndef SYS_open
#define SYS_access (-10)
#define SYS_dup2 (-11)
#define SYS_fork (-12)
#define SYS_link (-13)
#define SYS_lstat (-14)
#define SYS_mkdir (-15)
#define SYS_open (-16)
#define SYS_pipe (-17)
#define SYS_poll (-18)
#define SYS_select (-19)
#define SYS_stat (-20)
#define SYS_unlink (-21)
#define SYS_vfork (-22)
#endif
#ifndef SYS_rename
#define SYS_rename (-23)
#endif

namespace testing_support {

/// The beginning of a filter, which the rules of AppendRule follow.
std::vector<sock_filter> BeginRules();
/// Gives `result` for the call `number`, however the C library makes it.
void AppendRule(std::vector<sock_filter>& rules, long number, unsigned result);
/// Whether a call that was made is the one that tests name `number`.
bool IsCall(const seccomp_data& made, long number);

} // namespace testing_support

#endif
