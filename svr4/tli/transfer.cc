#include "svr4/tli.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>

#include "svr4/tli/endpoint.h"
#include "svr4/tli/error.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace tli;

int t_snd(int fd, const char* buf, unsigned nbytes, int flags)
{
    Endpoint* endpoint = FindIn(fd, In(T_DATAXFER) | In(T_INREL));
    if (endpoint == nullptr)
        return -1;
    if ((flags & ~T_MORE) != 0)
        return Fail(flags & T_EXPEDITED ? TNOTSUPPORT : TBADFLAG);
    if (nbytes == 0 || nbytes > INT_MAX)
        return Fail(TBADDATA);
    unsigned sent = 0;
    while (sent < nbytes) {
        const ssize_t count = send(fd, buf + sent, nbytes - sent, MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<unsigned>(count);
        else if (errno != EAGAIN)
            return endpoint->FailConnection(errno);
        else if (endpoint->Await(POLLOUT, TFLOW) < 0)
            return sent > 0 ? static_cast<int>(sent) : -1;
    }
    return static_cast<int>(sent);
}

int t_rcv(int fd, char* buf, unsigned nbytes, int* flags)
{
    Endpoint* endpoint = FindIn(fd, In(T_DATAXFER) | In(T_OUTREL));
    if (endpoint == nullptr)
        return -1;
    if (flags != nullptr)
        *flags = 0;
    if (nbytes == 0)
        return 0;
    for (;;) {
        const ssize_t count = recv(fd, buf, std::min<unsigned>(nbytes, INT_MAX), 0);
        if (count > 0)
            return static_cast<int>(count);
        if (count == 0)
            return Fail(TLOOK); // T_ORDREL, or the T_DISCONNECT that was seen before
        if (errno != EAGAIN)
            return endpoint->FailConnection(errno);
        if (endpoint->Await(POLLIN, TNODATA) < 0)
            return -1;
    }
}

} // namespace svr4
