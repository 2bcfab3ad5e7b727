// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipctli.h"

#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "Misc/detail/owner.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"
#include "Misc/detail/timedcall.h"
#include "Misc/ipctli/failure.h"
#include "Misc/ipctli/names.h"
#include "svr4/errno.h"
#include "svr4/netconfig.h"
#include "svr4/tli.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipctli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const long ConnectSeconds = 120;
static const unsigned ListenQueueLength = 5;

static bool CopyAddress(const svr4::netbuf& from, svr4::netbuf& to)
{
    if (from.len > to.maxlen)
        return false;
    std::memcpy(to.buf, from.buf, from.len);
    to.len = from.len;
    return true;
}

// A structure of type T_BIND or T_CALL that holds an address; the caller frees it with t_free. Null when memory fails.
template <class Structure>
static Structure* NewWithAddress(int fd, int type, const svr4::netbuf& address)
{
    Structure* structure = static_cast<Structure*>(svr4::t_alloc(fd, type, svr4::T_ADDR));
    if (structure == nullptr || CopyAddress(address, structure->addr))
        return structure;
    svr4::t_free(structure, type);
    return nullptr;
}

// After TLOOK: prints the event that stands in the way, and takes it.
static void TakeEvent(int fd, const char* line)
{
    const int event = svr4::t_look(fd);
    std::cout << line << event << std::endl;
    if (event == svr4::T_CONNECT)
        svr4::t_rcvconnect(fd, nullptr);
    else if (event == svr4::T_DISCONNECT)
        svr4::t_rcvdis(fd, nullptr);
}

IPCTli::IPCTli() : fd(-1), owner(-1), provider(nullptr), addrs(nullptr), callptr(nullptr) {}

IPCTli::~IPCTli() { Release(); }

void IPCTli::dumpOn(std::ostream& out) const { out << "IPCTli::fd      : " << fd << '\n'; }

void IPCTli::SigTermProc(int) { Release(); }

bool IPCTli::Open(const char* device)
{
    fd = svr4::t_open(device, O_RDWR, nullptr);
    owner = getpid();
    return fd >= 0;
}

short IPCTli::Topen(const char* host, const char* service)
{
    CloseEndpoint();
    if (!get_addrs_and_provider(zeloo::HostOrSelf(host), service) || provider == nullptr)
        return 0;
    if (!Open(provider))
        return 0;
    int result = -1;
    svr4::t_call* call = nullptr;
    if (svr4::t_bind(fd, nullptr, nullptr) == 0)
        call = NewWithAddress<svr4::t_call>(fd, svr4::T_CALL, addrs->n_addrs[0]);
    if (call != nullptr) {
        zeloo::TimedCall limit(ConnectSeconds);
        result = svr4::t_connect(fd, call, nullptr);
    }
    svr4::t_free(call, svr4::T_CALL);
    if (result == 0)
        return 1;
    CloseEndpoint();
    return 0;
}

short IPCTli::Tprelisten(const char* host, const char* service)
{
    Release();
    if (Bind(zeloo::HostOrSelf(host), service)) {
        callptr = static_cast<svr4::t_call*>(svr4::t_alloc(fd, svr4::T_CALL, svr4::T_ALL));
        if (callptr != nullptr)
            return 1;
        std::cout << "unable to alloc a t_call structure in t_listen" << std::endl;
    }
    CloseEndpoint();
    return 0;
}

// Opens the endpoint and binds it to the first address of the service. On failure prints why.
short IPCTli::Bind(const char* host, const char* service)
{
    if (!get_addrs_and_provider(host, service)) {
        std::cout << "get info failed for host: " << host << " service: " << zeloo::TextOrEmpty(service) << std::endl;
        return 0;
    }
    if (provider == nullptr) {
        std::cout << "no address or provider to Tprelisten" << std::endl;
        return 0;
    }
    if (!Open(provider)) {
        std::cout << "Tprelisten t_open failure" << std::endl;
        return 0;
    }
    struct svr4::t_bind* request = NewWithAddress<struct svr4::t_bind>(fd, svr4::T_BIND, addrs->n_addrs[0]);
    if (request == nullptr) {
        std::cout << "Allocation of req failed" << std::endl;
        return 0;
    }
    request->qlen = ListenQueueLength;
    const bool bound = svr4::t_bind(fd, request, nullptr) == 0;
    if (!bound)
        zeloo::PrintFailure("Tprelisten t_bind failed: ", "Tprelisten t_bind failed:");
    svr4::t_free(request, svr4::T_BIND);
    return bound;
}

// Says that t_accept failed, and why; takes the event that stands in the way on the listening endpoint.
static void PrintAcceptFailure(int listener)
{
    const svr4::SavedErrno error;
    std::cout << "Taccept t_accept failed: " << svr4::t_errno << std::endl;
    errno = error.Value();
    svr4::t_error("Taccept t_accept failed:");
    std::cout << "Taccept t_accept errno:" << error.Value() << std::endl;
    if (svr4::t_errno == svr4::TLOOK)
        TakeEvent(listener, "Taccept t_accept failed tlook is: ");
}

short IPCTli::Taccept(const IPCTli& sp)
{
    CloseEndpoint();
    if (!Open(sp.provider))
        std::cout << "Taccept t_open failed: " << svr4::t_errno << std::endl;
    else if (svr4::t_bind(fd, nullptr, nullptr) < 0)
        std::cout << "Taccept t_bind failed: " << svr4::t_errno << std::endl;
    else if (svr4::t_accept(sp.fd, fd, sp.callptr) == 0)
        return 1;
    else
        PrintAcceptFailure(sp.fd);
    CloseEndpoint();
    return 0;
}

short IPCTli::Tlisten()
{
    if (callptr == nullptr) {
        std::cout << "no callptr provied to Tlisten function" << std::endl; // spelled so
        CloseEndpoint();
        return 0;
    }
    if (svr4::t_listen(fd, callptr) == 0)
        return 1;
    // The line names the other operation: this is intended.
    zeloo::PrintFailure("Tprelisten t_listen failed: ", "t_listen failed:");
    if (svr4::t_errno == svr4::TLOOK)
        TakeEvent(fd, "Tlisten t_listen failed tlook is: ");
    CloseEndpoint();
    return 0;
}

void IPCTli::Tshutdown()
{
    // In order: an event that a client sends just before it ends must arrive.
    if (svr4::t_sndrel(fd) < 0)
        svr4::t_snddis(fd, nullptr);
}

short IPCTli::Tclose() { return svr4::t_close(std::exchange(fd, -1)) == 0 ? 0 : -1; }

// A copy is closed without disconnecting: the connection goes on in the process that opened it.
void IPCTli::CloseEndpoint()
{
    if (fd < 0)
        return;
    if (zeloo::IsOwner(owner))
        Tshutdown();
    Tclose();
}

void IPCTli::Release()
{
    CloseEndpoint();
    FreeAddresses();
    svr4::t_free(std::exchange(callptr, nullptr), svr4::T_CALL);
}
