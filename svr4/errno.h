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

/// The text of strerror(3), for handlers: that one may allocate and take a lock.
inline const char* error_text(int error)
{
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 32)
    const char* text = strerrordesc_np(error);
    return text != nullptr ? text : "Unknown error";
#else
    return strerror(error);
#endif
}

} // namespace svr4

#endif
