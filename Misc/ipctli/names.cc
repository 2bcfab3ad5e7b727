// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipctli/names.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <utility>

#include "Misc/detail/filestream.h"
#include "Misc/detail/hostname.h"
#include "Misc/detail/paths.h"
#include "Misc/detail/text.h"
#include "Misc/ipctli.h"
#include "Misc/proginfo.h"
#include "svr4/netconfig.h"
#include "svr4/tli.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipctli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int LongestHostLine = 256;
static const char DaemonService[] = "orvd";

const char* zeloo::HostOrSelf(const char* host)
{
    const bool isSelf = host == nullptr || std::strcmp(host, TextOrEmpty(ProgInfo::GetNodeName())) == 0;
    return isSelf ? svr4::HOST_SELF : host;
}

const char* zeloo::ServiceOf(const char* serverName)
{
    const bool byDaemon = std::strcmp(serverName, "pexserver") == 0 || std::strcmp(serverName, "orvpmd") == 0;
    return byDaemon ? DaemonService : serverName;
}

// The network selection path.
typedef std::unique_ptr<void, int (*)(void*)> Path;

static Path OpenPath() { return Path(svr4::setnetpath(), svr4::endnetpath); }

static bool IsConnectionOriented(const svr4::netconfig& config)
{
    return config.nc_semantics == svr4::NC_TPI_COTS || config.nc_semantics == svr4::NC_TPI_COTS_ORD;
}

// The next connection-oriented transport that knows the service, with its addresses, which the caller frees; null when
// there is none.
static const svr4::netconfig* NextTransport(const Path& path, const char* host, const char* service,
                                            svr4::nd_addrlist** list)
{
    const svr4::nd_hostserv wanted = {host, service};
    while (const svr4::netconfig* config = svr4::getnetpath(path.get()))
        if (IsConnectionOriented(*config) && svr4::netdir_getbyname(config, &wanted, list) == svr4::ND_OK)
            return config;
    return nullptr;
}

short IPCTli::get_addrs_and_provider(const char* HostName, const char* Service)
{
    FreeAddresses();
    const svr4::netconfig* config = NextTransport(OpenPath(), HostName, Service, &addrs);
    if (config == nullptr)
        return 0;
    provider = zeloo::NewText(config->nc_device);
    return 1;
}

void IPCTli::FreeAddresses()
{
    delete[] std::exchange(provider, nullptr);
    svr4::netdir_free(std::exchange(addrs, nullptr), svr4::ND_ADDRLIST);
}

char* IPCTli::get_default_hostname(const char* HostName)
{
    static char host[LongestHostLine + 1];
    if (HostName == nullptr)
        return nullptr;
    if (std::strcmp(zeloo::ServiceOf(HostName), DaemonService) != 0) {
        zeloo::CopyText(host, HostName);
        return host;
    }
    zeloo::InputFile file(zeloo::ServerHostFile);
    if (!file)
        return nullptr;
    host[0] = '\0';
    file.getline(host, sizeof host); // a longer line is cut
    host[std::strcspn(host, " \t\n\v\f\r")] = '\0';
    return host;
}

short IPCTli::NodeNamesEqual(const char* Node1, const char* Node2)
{
    if (Node1 == nullptr || Node2 == nullptr || *Node1 == '\0' || *Node2 == '\0')
        return 0;
    if (std::strcmp(Node1, Node2) == 0)
        return 1;
    char addr1[AsciiAddrSize];
    char addr2[AsciiAddrSize];
    get_ascii_addr(Node1, DaemonService, addr1);
    get_ascii_addr(Node2, DaemonService, addr2);
    return addr1[0] != '\0' && std::strcmp(addr1, addr2) == 0;
}

void IPCTli::get_ascii_addr(const char* host, const char* service, char* addr)
{
    addr[0] = '\0';
    const Path path = OpenPath();
    svr4::nd_addrlist* list;
    while (const svr4::netconfig* config = NextTransport(path, host, service, &list)) {
        char* text = svr4::taddr2uaddr(config, &list->n_addrs[0]);
        std::snprintf(addr, AsciiAddrSize, "%s", zeloo::TextOrEmpty(text));
        std::free(text);
        svr4::netdir_free(list, svr4::ND_ADDRLIST);
    }
}

short IPCTli::configured_ok(const char* host, const char* service)
{
    char addr[AsciiAddrSize];
    get_ascii_addr(zeloo::HostOrSelf(host), service, addr);
    return addr[0] != '\0';
}

char* IPCTli::TcptoName(const char* tcpIpAddress) { return zeloo::OfficialHostName(tcpIpAddress); }

static void PrintTransport(const svr4::netconfig& config, std::ostream& out)
{
    out << "===================================================\n";
    out << "Transport provider name:      " << config.nc_netid << '\n';
    out << "Transport protocol family:    " << config.nc_protofmly << '\n';
    out << "The transport device file:    " << config.nc_device << '\n';
    out << "Transport provider semantics: connection-oriented transport"
        << (config.nc_semantics == svr4::NC_TPI_COTS_ORD ? " with orderly release" : "") << '\n';
}

static void PrintAddress(const svr4::netconfig& config, const svr4::netbuf& address, std::ostream& out)
{
    char* text = svr4::taddr2uaddr(&config, &address);
    out << zeloo::TextOrEmpty(text) << '\n';
    std::free(text);
    out << "Hex dump of address: ";
    Buffer::hexdumpOn(address.buf, address.len, out);
}

void IPCTli::info(const char* host, const char* service, std::ostream& out)
{
    if (host == nullptr)
        host = svr4::HOST_SELF;
    out << "Information for host: " << host << " service: " << zeloo::TextOrEmpty(service) << '\n';
    const Path path = OpenPath();
    if (path == nullptr) {
        out << "Unable to setnetpath()\n";
        return;
    }
    bool found = false;
    svr4::nd_addrlist* list;
    while (const svr4::netconfig* config = NextTransport(path, host, service, &list)) {
        PrintTransport(*config, out);
        out << "There are <" << list->n_cnt << "> addresses for the " << service << " service on " << host << '\n';
        for (int i = 0; i < list->n_cnt; i++)
            PrintAddress(*config, list->n_addrs[i], out);
        found = true;
        svr4::netdir_free(list, svr4::ND_ADDRLIST);
    }
    if (!found)
        out << "No valid addresses found.\n check network files (ie. /etc/hosts, /etc/services)\n";
}
