// The system's error number.
#ifndef SVR4_ERRNO_H
#define SVR4_ERRNO_H

#include <cerrno>

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

} // namespace svr4

#endif
