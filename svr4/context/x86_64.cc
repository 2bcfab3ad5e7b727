#include "svr4/context/registers.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

#if defined(__x86_64__)

svr4::SignalledContext svr4::ReadContext(const ucontext_t& host)
{
    const greg_t* g = host.uc_mcontext.gregs;
    const auto value = [g](int index) { return static_cast<uint64_t>(g[index]); };
    const uint64_t segments = value(REG_CSGSFS); // 16 bits each: cs, gs, fs, ss; the others are not saved
    return {static_cast<uintptr_t>(value(REG_RSP)),
            static_cast<uintptr_t>(value(REG_RBP)),
            {{"SS", segments >> 48},
             {"UESP", value(REG_RSP)},
             {"EFL", value(REG_EFL)},
             {"CS", segments & 0xffff},
             {"EIP", value(REG_RIP)},
             {"ERR", value(REG_ERR)},
             {"TRAPNO", value(REG_TRAPNO)},
             {"EAX", value(REG_RAX)},
             {"ECX", value(REG_RCX)},
             {"EDX", value(REG_RDX)},
             {"EBX", value(REG_RBX)},
             {"ESP", value(REG_RSP)},
             {"EBP", value(REG_RBP)},
             {"ESI", value(REG_RSI)},
             {"EDI", value(REG_RDI)},
             {"DS", 0},
             {"ES", 0},
             {"FS", segments >> 32 & 0xffff},
             {"GS", segments >> 16 & 0xffff}}};
}

#endif
