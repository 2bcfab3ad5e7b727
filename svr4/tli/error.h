// How a call of the Transport Layer Interface fails.
#ifndef SVR4_TLI_ERROR_H
#define SVR4_TLI_ERROR_H

namespace svr4::tli {

/// What a call that failed returns: -1, or null where it returns a pointer.
struct Failure {
    operator int() const { return -1; }
    template <class T>
    operator T*() const
    {
        return nullptr;
    }
};

/// Fails with `code` in t_errno.
Failure Fail(int code);

/// Fails with TSYSERR, and with `error` in `errno`.
Failure FailSystem(int error);

} // namespace svr4::tli

#endif
