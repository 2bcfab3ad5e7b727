// SPDX-License-Identifier: BSD-2-Clause
// How the failures of the transport are printed.
#ifndef MISC_IPCTLI_FAILURE_H
#define MISC_IPCTLI_FAILURE_H

#include "Misc/detail/standardstreams.h"
#include "svr4/errno.h"
#include "svr4/tli.h"

namespace zeloo {

/// Says that a call failed, and why: on the standard output with `line`, on the standard error with `what`.
inline void PrintFailure(const char* line, const char* what)
{
    {
        const svr4::SavedErrno error;
        std::cout << line << std::endl;
        std::cout << "errno: " << error.Value() << " t_errno: " << svr4::t_errno << std::endl;
    }
    svr4::t_error(what);
}

} // namespace zeloo

#endif
