// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/crash/signalfile.h"

#include <algorithm>
#include <cerrno>
#include <locale>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Misc/detail/immortal.h"
#include "Misc/detail/standardstreams.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

namespace {

constexpr int ReaderPatience = 100; // milliseconds for the reader of a full pipe

// Whether a write of a small block would not wait.
bool IsReady(int fd)
{
    struct pollfd descriptor = {fd, POLLOUT, 0};
    int found;
    do
        found = poll(&descriptor, 1, ReaderPatience);
    while (found < 0 && errno == EINTR);
    return found > 0;
}

int WriteAll(int fd, const char* bytes, size_t length)
{
    while (length > 0) {
        const ssize_t n = write(fd, bytes, length);
        if (n < 0 && errno != EINTR)
            return errno;
        if (n > 0) {
            bytes += n;
            length -= static_cast<size_t>(n);
        }
    }
    return 0;
}

class ErrorStream : public SignalStream {
public:
    void Renew() { Reset(); }

private:
    int Put(const char* bytes, size_t length) override
    {
        constexpr size_t Piece = 512; // a pipe that is ready takes PIPE_BUF bytes, which are at least as many
        for (size_t at = 0; at < length; at += Piece) {
            if (!IsReady(STDERR_FILENO))
                return EAGAIN;
            if (const int error = WriteAll(STDERR_FILENO, bytes + at, std::min(Piece, length - at)))
                return error;
        }
        return 0;
    }
};

} // namespace

SignalStream::SignalStream() : std::ostream(nullptr), error(0)
{
    pubimbue(std::locale::classic()); // the program's own may have memory on the heap, and a lock
    init(this);
    std::ostream::imbue(std::locale::classic());
    Reset();
}

void SignalStream::Reset()
{
    error = 0;
    setp(block, block + sizeof block);
    clear();
    flags(std::ios::dec | std::ios::skipws);
    width(0);
    precision(6);
    fill(' ');
}

std::streambuf::int_type SignalStream::overflow(std::streambuf::int_type c)
{
    using traits = std::streambuf::traits_type;
    if (sync() != 0)
        return traits::eof();
    return sputc(traits::to_char_type(c)); // there is room now
}

int SignalStream::sync()
{
    const char* const start = pbase();
    const size_t length = static_cast<size_t>(pptr() - start);
    setp(block, block + sizeof block); // first: Put may not return
    if (error == 0 && length > 0)
        error = Put(start, length);
    return error == 0 ? 0 : -1;
}

SignalFile::SignalFile() : fd(-1), written(0), mostBytes(0), whenBeyond(nullptr) {}

void SignalFile::Attach(int descriptor, unsigned long limit, void (*beyond)())
{
    Reset();
    fd = descriptor;
    written = 0;
    SetLimit(limit, beyond);
}

void SignalFile::SetLimit(unsigned long limit, void (*beyond)())
{
    mostBytes = limit;
    whenBeyond = beyond;
}

int SignalFile::Put(const char* bytes, size_t length)
{
    const unsigned long room = mostBytes > written ? mostBytes - written : 0;
    const bool isBeyond = whenBeyond != nullptr && length > room;
    const size_t fitting = isBeyond ? room : length;
    if (const int failure = WriteAll(fd, bytes, fitting))
        return failure;
    written += fitting;
    if (isBeyond)
        whenBeyond();
    return 0;
}

int OpenForDump(const char* name, int mode)
{
    return open(name, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | mode, 0666);
}

std::ostream& StandardError()
{
    if (std::cerr.rdbuf() != nullptr)
        std::cerr.clear(); // for what the objects may have to say
    ErrorStream& stream = Immortal<ErrorStream>();
    stream.Renew();
    return stream;
}

void MakeStandardErrorReady() { Immortal<ErrorStream>(); }

void CutFullOutputs()
{
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        if (IsReady(fd))
            continue;
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (nowhere < 0)
            continue;
        dup2(nowhere, fd);
        close(nowhere);
    }
}

} // namespace zeloo
