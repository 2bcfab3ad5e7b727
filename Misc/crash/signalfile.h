// What a signal handler writes to.
#ifndef MISC_CRASH_SIGNALFILE_H
#define MISC_CRASH_SIGNALFILE_H

#include <ostream>
#include <streambuf>

namespace zeloo {

/// A file written from a signal handler: the signal may have come in the middle of malloc, so a FILE or a filebuf,
/// which allocate, will not do. The file is opened for writing, created with mode 0666 where there is none, with `mode`
/// (O_APPEND or O_TRUNC) beside. IsOpen tells whether that succeeded; Error is the `errno` of the first failure, of the
/// opening or of a later write, or 0. The destructor writes what is left.
class SignalFile : private std::streambuf, public std::ostream {
public:
    SignalFile(const char* name, int mode);
    ~SignalFile() override;

    bool IsOpen() const { return fd >= 0; }
    int Error() const { return error; }

private:
    std::streambuf::int_type overflow(std::streambuf::int_type c) override;
    int sync() override;

    int fd;
    int error;
    char block[4096];
};

/// Standard error, good and unbuffered, with decimal numbers, whatever the program has done to it.
std::ostream& StandardError();

} // namespace zeloo

#endif
