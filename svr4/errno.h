// SPDX-License-Identifier: BSD-2-Clause
// The system's error number.
#ifndef SVR4_ERRNO_H
#define SVR4_ERRNO_H

#include <cerrno>
#include <cstring>

namespace svr4 {

/// Keeps `errno` as it is now: whatever happens until this dies, the caller sees the old value again.
class SavedErrno {
public:
    SavedErrno() : value(errno) {}
    ~SavedErrno() { errno = value; }
    SavedErrno(const SavedErrno&) = delete;
    SavedErrno& operator=(const SavedErrno&) = delete;

    int Value() const { return value; }

private:
    const int value;
};

/// Fails as a call of the system does: puts `error` into `errno` and returns -1.
inline int FailWith(int error)
{
    errno = error;
    return -1;
}

/// The text of strerror(3), untranslated, for handlers and children that share memory: that one may allocate and take a
/// lock. Null for a number that is no error.
inline const char* known_error_text(int error)
{
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 32)
    return strerrordesc_np(error);
#else
    return strerror(error);
#endif
}

/// The same, with a text for every number.
inline const char* error_text(int error)
{
    const char* text = known_error_text(error);
    return text != nullptr ? text : "Unknown error";
}

} // namespace svr4

#endif
