// SPDX-License-Identifier: BSD-2-Clause
// The registers of a signal's context. Internal to the host layer.
#ifndef SVR4_CONTEXT_REGISTERS_H
#define SVR4_CONTEXT_REGISTERS_H

#include <ucontext.h>

#include "svr4/context.h"

namespace svr4 {

/// What `host` holds. Every processor has a file of its own, which is empty on the others; generic.cc is for those
/// that have none. Usable in a handler.
SignalledContext ReadContext(const ucontext_t& host);

} // namespace svr4

#endif
