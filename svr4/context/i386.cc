// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/context/registers.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

#if defined(__i386__)

svr4::SignalledContext svr4::ReadContext(const ucontext_t& host)
{
    const greg_t* g = host.uc_mcontext.gregs;
    const auto value = [g](int index) { return static_cast<uint32_t>(g[index]); };
    return {value(REG_UESP),
            value(REG_EBP),
            {value(REG_SS), value(REG_UESP), value(REG_EFL), value(REG_CS), value(REG_EIP), value(REG_ERR),
             value(REG_TRAPNO), value(REG_EAX), value(REG_ECX), value(REG_EDX), value(REG_EBX), value(REG_ESP),
             value(REG_EBP), value(REG_ESI), value(REG_EDI), value(REG_DS), value(REG_ES), value(REG_FS),
             value(REG_GS)}};
}

#endif
