// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/context/registers.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

#if defined(__x86_64__)

svr4::SignalledContext svr4::ReadContext(const ucontext_t& host)
{
    const greg_t* g = host.uc_mcontext.gregs;
    const auto value = [g](int index) { return static_cast<uint64_t>(g[index]); };
    const uint64_t segments = value(REG_CSGSFS); // 16 bits each: cs, gs, fs, ss; the others are not saved
    return {value(REG_RSP),
            value(REG_RBP),
            {segments >> 48, value(REG_RSP), value(REG_EFL), segments & 0xffff, value(REG_RIP), value(REG_ERR),
             value(REG_TRAPNO), value(REG_RAX), value(REG_RCX), value(REG_RDX), value(REG_RBX), value(REG_RSP),
             value(REG_RBP), value(REG_RSI), value(REG_RDI), 0, 0, segments >> 32 & 0xffff, segments >> 16 & 0xffff}};
}

#endif
