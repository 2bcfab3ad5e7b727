#include "svr4/context/registers.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

#if defined(__i386__)

svr4::SignalledContext svr4::ReadContext(const ucontext_t& host)
{
    const greg_t* g = host.uc_mcontext.gregs;
    const auto value = [g](int index) { return static_cast<uint32_t>(g[index]); };
    return {value(REG_UESP),
            value(REG_EBP),
            {{"SS", value(REG_SS)},
             {"UESP", value(REG_UESP)},
             {"EFL", value(REG_EFL)},
             {"CS", value(REG_CS)},
             {"EIP", value(REG_EIP)},
             {"ERR", value(REG_ERR)},
             {"TRAPNO", value(REG_TRAPNO)},
             {"EAX", value(REG_EAX)},
             {"ECX", value(REG_ECX)},
             {"EDX", value(REG_EDX)},
             {"EBX", value(REG_EBX)},
             {"ESP", value(REG_ESP)},
             {"EBP", value(REG_EBP)},
             {"ESI", value(REG_ESI)},
             {"EDI", value(REG_EDI)},
             {"DS", value(REG_DS)},
             {"ES", value(REG_ES)},
             {"FS", value(REG_FS)},
             {"GS", value(REG_GS)}}};
}

#endif
