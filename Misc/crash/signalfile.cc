#include "Misc/crash/signalfile.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "Misc/detail/standardstreams.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

SignalFile::SignalFile(const char* name, int mode)
    : std::ostream(nullptr), fd(open(name, O_WRONLY | O_CREAT | O_CLOEXEC | mode, 0666)), error(fd < 0 ? errno : 0)
{
    setp(block, block + sizeof block);
    init(this);
}

SignalFile::~SignalFile()
{
    if (fd < 0)
        return;
    sync();
    close(fd);
}

std::streambuf::int_type SignalFile::overflow(std::streambuf::int_type c)
{
    using traits = std::streambuf::traits_type;
    if (sync() != 0)
        return traits::eof();
    if (!traits::eq_int_type(c, traits::eof()))
        sputc(traits::to_char_type(c));
    return traits::not_eof(c);
}

int SignalFile::sync()
{
    for (const char* p = pbase(); p < pptr() && error == 0;) {
        const ssize_t n = ::write(fd, p, static_cast<size_t>(pptr() - p));
        if (n > 0)
            p += n;
        else if (n < 0 && errno != EINTR)
            error = errno;
    }
    setp(block, block + sizeof block);
    return error == 0 ? 0 : -1;
}

std::ostream& StandardError()
{
    std::cerr.clear();
    std::cerr.flags(std::ios::dec | std::ios::skipws | std::ios::unitbuf);
    std::cerr.width(0);
    return std::cerr;
}

} // namespace zeloo
