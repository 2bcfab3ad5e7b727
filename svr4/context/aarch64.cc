// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/context/registers.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

#if defined(__aarch64__)

// Program counter, stack and frame pointer and the flags have a label; to the numbered registers none belongs.
svr4::SignalledContext svr4::ReadContext(const ucontext_t& host)
{
    const auto& from = host.uc_mcontext;
    const uintptr_t framePointer = from.regs[29];
    return {from.sp,
            framePointer,
            {0, from.sp, from.pstate, 0, from.pc, 0, 0, 0, 0, 0, 0, from.sp, framePointer, 0, 0, 0, 0, 0, 0}};
}

#endif
