// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/context/registers.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

#if !defined(__x86_64__) && !defined(__i386__) && !defined(__aarch64__)

svr4::SignalledContext svr4::ReadContext(const ucontext_t&) { return {}; }

#endif
