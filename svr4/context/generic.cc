#include "svr4/context/registers.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

#if !defined(__x86_64__) && !defined(__i386__)

svr4::SignalledContext svr4::ReadContext(const ucontext_t&)
{
    return {0,
            0,
            {{"SS", 0},
             {"UESP", 0},
             {"EFL", 0},
             {"CS", 0},
             {"EIP", 0},
             {"ERR", 0},
             {"TRAPNO", 0},
             {"EAX", 0},
             {"ECX", 0},
             {"EDX", 0},
             {"EBX", 0},
             {"ESP", 0},
             {"EBP", 0},
             {"ESI", 0},
             {"EDI", 0},
             {"DS", 0},
             {"ES", 0},
             {"FS", 0},
             {"GS", 0}}};
}

#endif
