// SPDX-License-Identifier: BSD-2-Clause
// What a signal handler writes to.
#ifndef MISC_CRASH_SIGNALFILE_H
#define MISC_CRASH_SIGNALFILE_H

#include <ostream>
#include <streambuf>

namespace zeloo {

/// A stream for signal handlers: the signal may have come in the middle of malloc, of a stream or of stdio, so what it
/// writes with neither allocates nor takes a lock. It is made before it is needed, and written in the classic locale.
class SignalStream : private std::streambuf, public std::ostream {
public:
    SignalStream();

protected:
    /// Writes the bytes; 0, or the `errno` of a failure.
    virtual int Put(const char* bytes, size_t length) = 0;
    /// Empties the block and makes the stream good, with the settings of a new one.
    void Reset();
    void Fail(int errorNumber) { error = errorNumber; }
    /// The `errno` of the first failure since the last Reset, or 0; nothing is written behind a failure.
    int FirstError() const { return error; }

private:
    std::streambuf::int_type overflow(std::streambuf::int_type c) override;
    int sync() override;

    int error;
    char block[4096];
};

/// A file for a dump, bounded.
class SignalFile : public SignalStream {
public:
    SignalFile();
    /// Takes a descriptor that is open for writing, for the file named by `errorNumber` when it is negative. At most
    /// `limit` bytes go to it: when there would be more, the part that fits is written and `beyond` called, which does
    /// not return.
    void Attach(int descriptor, unsigned long limit, void (*beyond)());
    /// Changes the limit, which counts from the last Attach on. Null for `beyond`: none.
    void SetLimit(unsigned long limit, void (*beyond)());
    int Error() const { return FirstError(); }
    unsigned long Written() const { return written; }

private:
    int Put(const char* bytes, size_t length) override;

    int fd;
    unsigned long written; // bytes
    unsigned long mostBytes;
    void (*whenBeyond)();
};

/// Opens the file `name` for a dump, created with mode 0666 where there is none, with `mode` (O_APPEND or O_TRUNC)
/// beside. Opening does not wait, whatever the file is. Returns the descriptor, or -1 with `errno`.
int OpenForDump(const char* name, int mode);

/// Standard error, good and with the settings of a new stream, whatever the program has done to its own. What is
/// written goes out with a flush, and is left out where it would have to wait: for a pipe that nobody reads.
std::ostream& StandardError();
/// Makes it, while that may take memory. The program's own stream stays as it is.
void MakeStandardErrorReady();

/// Lets standard output and standard error lead nowhere, each if a write to it would have to wait now.
void CutFullOutputs();

} // namespace zeloo

#endif
