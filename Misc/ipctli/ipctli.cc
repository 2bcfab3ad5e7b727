#include "Misc/ipctli.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <new>
#include <optional>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "Misc/detail/hostname.h"
#include "Misc/detail/text.h"
#include "Misc/detail/timedcall.h"
#include "Misc/proginfo.h"
#include "svr4/netconfig.h"
#include "svr4/tli.h"

using namespace svr4;

using zeloo::DumpText;
using zeloo::Terminated;

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: ipctli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

static_assert(sizeof(TliMsgStruct) == 1904, "the record of a connection is an external interface");
static_assert(offsetof(TliMsgStruct, object) == 0);
static_assert(offsetof(TliMsgStruct, QueueExistCheck) == 2);
static_assert(offsetof(TliMsgStruct, senders_version) == 4);
static_assert(offsetof(TliMsgStruct, parts_left) == 24);
static_assert(offsetof(TliMsgStruct, send_data_length) == 26);
static_assert(offsetof(TliMsgStruct, curr_data_offset) == 28);
static_assert(offsetof(TliMsgStruct, event) == 32);
static_assert(offsetof(TliMsgStruct, orignode) == 34);
static_assert(offsetof(TliMsgStruct, origprog) == 114);
static_assert(offsetof(TliMsgStruct, response_rqd) == 194);
static_assert(offsetof(TliMsgStruct, ack_rqd) == 196);
static_assert(offsetof(TliMsgStruct, result_code) == 198);
static_assert(offsetof(TliMsgStruct, alloc_data_length) == 200);
static_assert(offsetof(TliMsgStruct, msg_data) == 204);

static const char ServerHostFile[] = "/var/orv/data/orvdserver.host";
static const int LongestHostLine = 256;
static const char DaemonService[] = "orvd";
static const long ConnectSeconds = 120;
static const long ReceiveSeconds = 900;
static const unsigned ListenQueueLength = 5;
static const int BlockSize = sizeof(TliMsgStruct::msg_data);
static const long LongestData = (INT16_MAX + 1L) * BlockSize - 1;
static const unsigned LargestTransfer = 1U << 30;
static const unsigned GrowthStep = 1U << 20;
static const int RecordsAtOnce = 16; // of one event, handed to the transport or taken from it in one call
static const int16_t ServerGoingEvent = -1;

// ---- Records ----------------------------------------------------------------------------------------------------

void DumpTliMessage(const TliMsgStruct* pmsg, std::ostream& out)
{
    out << "TliMessage\n\n";
    out << "QueueExistCheck =  " << (pmsg->QueueExistCheck ? "TRUE" : "FALSE") << '\n';
    out << "object =           " << pmsg->object << '\n';
    DumpText("senders_version  = ", pmsg->senders_version, out);
    out << "parts_left =       " << pmsg->parts_left << '\n';
    out << "send_data_length = " << pmsg->send_data_length << '\n';
    out << "curr_data_offset = " << pmsg->curr_data_offset << "\n\n";
    out << "event =              " << pmsg->event << (pmsg->event == 0 ? " (NULL)" : "") << "\n\n";
    DumpText("origprog: ", pmsg->origprog, out);
    DumpText("orignode: ", pmsg->orignode, out);
    out << "response_rqd: " << pmsg->response_rqd << '\n';
    out << "ack_rqd     : " << pmsg->ack_rqd << '\n';
    out << "result_code : " << pmsg->result_code << '\n';
    out << "alloc_data_length: " << pmsg->alloc_data_length << '\n';
    out << "msg_data = ";
    const int length = std::clamp<int>(pmsg->send_data_length, 0, BlockSize);
    Buffer::hexdumpOn(pmsg->msg_data, static_cast<unsigned>(length), out);
}

// Whether a record carries on after `received` of `total` bytes, and the records after it can carry the rest.
static bool RecordFits(const TliMsgStruct& msg, int32_t received, int32_t total)
{
    const int64_t length = msg.send_data_length;
    const int64_t rest = int64_t(total) - received - length;
    return msg.alloc_data_length == total && msg.curr_data_offset == received && length >= 0 && length <= BlockSize &&
           msg.parts_left >= 0 && rest >= 0 && rest <= int64_t(msg.parts_left) * BlockSize;
}

static bool FirstRecordFits(const TliMsgStruct& msg)
{
    return Terminated(msg.senders_version) && Terminated(msg.orignode) && Terminated(msg.origprog) &&
           RecordFits(msg, 0, msg.alloc_data_length) && (msg.alloc_data_length > 0 || msg.parts_left == 0);
}

// Puts the data of a record, which has been checked, into its place. The buffer grows ahead of the data, in steps;
// with the last byte it has the size of the whole. False when memory fails.
static bool PlaceData(const TliMsgStruct& msg, Buffer& Data)
{
    const unsigned offset = static_cast<unsigned>(msg.curr_data_offset);
    const unsigned length = static_cast<unsigned>(msg.send_data_length);
    if (offset + length > Data.Size()) {
        const unsigned total = static_cast<unsigned>(msg.alloc_data_length);
        Data.PutDataAt(std::min(total, std::max(2 * Data.Size(), GrowthStep)), "", 0);
    }
    if (offset + length > Data.Size())
        return false;
    Data.PutDataAt(offset, msg.msg_data, length);
    return true;
}

// ---- The transport ----------------------------------------------------------------------------------------------

static bool IsThisNode(const char* host)
{
    return std::strcmp(host, zeloo::TextOrEmpty(ProgInfo::GetNodeName())) == 0;
}

static const char* HostOrSelf(const char* host)
{
    return host == nullptr || IsThisNode(host) ? HOST_SELF : host;
}

namespace {

// The connection-oriented transports of the network selection path.
class TransportPath {
public:
    TransportPath() : handle(setnetpath()) {}
    ~TransportPath()
    {
        if (handle != nullptr)
            endnetpath(handle);
    }
    TransportPath(const TransportPath&) = delete;
    TransportPath& operator=(const TransportPath&) = delete;

    bool IsOpen() const { return handle != nullptr; }

    // The next transport that knows the service, with its addresses, which the caller frees; null when there is none.
    const netconfig* Next(const char* host, const char* service, nd_addrlist** list)
    {
        const nd_hostserv wanted = {host, service};
        while (const netconfig* config = getnetpath(handle))
            if (IsConnectionOriented(*config) && netdir_getbyname(config, &wanted, list) == ND_OK)
                return config;
        return nullptr;
    }

private:
    static bool IsConnectionOriented(const netconfig& config)
    {
        return config.nc_semantics == NC_TPI_COTS || config.nc_semantics == NC_TPI_COTS_ORD;
    }

    void* handle;
};

} // namespace

static bool CopyAddress(const netbuf& from, netbuf& to)
{
    if (from.len > to.maxlen)
        return false;
    std::memcpy(to.buf, from.buf, from.len);
    to.len = from.len;
    return true;
}

// A structure of type T_BIND or T_CALL that holds an address; the caller frees it with t_free. Null when memory fails.
template <class Structure>
static Structure* NewWithAddress(int fd, int type, const netbuf& address)
{
    Structure* structure = static_cast<Structure*>(t_alloc(fd, type, T_ADDR));
    if (structure == nullptr || CopyAddress(address, structure->addr))
        return structure;
    t_free(structure, type);
    return nullptr;
}

// Says that a call failed, and why: on the standard output with `line`, on the standard error with `what`.
static void PrintFailure(const char* line, const char* what)
{
    const int error = errno;
    std::cout << line << std::endl;
    std::cout << "errno: " << error << " t_errno: " << t_errno << std::endl;
    errno = error;
    t_error(what);
}

// After TLOOK: prints the event that stands in the way, and takes it.
static void TakeEvent(int fd, const char* line)
{
    const int event = t_look(fd);
    std::cout << line << event << std::endl;
    if (event == T_CONNECT)
        t_rcvconnect(fd, nullptr);
    else if (event == T_DISCONNECT)
        t_rcvdis(fd, nullptr);
}

// ---- IPCTli -----------------------------------------------------------------------------------------------------

IPCTli::IPCTli() : fd(-1), provider(nullptr), addrs(nullptr), callptr(nullptr)
{
}

IPCTli::~IPCTli()
{
    Release();
}

void IPCTli::dumpOn(std::ostream& out) const
{
    out << "IPCTli::fd      : " << fd << '\n';
}

void IPCTli::SigTermProc(int)
{
    Release();
}

short IPCTli::get_addrs_and_provider(const char* HostName, const char* Service)
{
    FreeAddresses();
    TransportPath path;
    const netconfig* config = path.Next(HostName, Service, &addrs);
    if (config == nullptr)
        return 0;
    provider = zeloo::NewText(config->nc_device);
    return 1;
}

short IPCTli::Topen(const char* host, const char* service)
{
    CloseEndpoint();
    if (!get_addrs_and_provider(HostOrSelf(host), service) || addrs->n_cnt < 1 || provider == nullptr)
        return 0;
    fd = t_open(provider, O_RDWR, nullptr);
    if (fd < 0)
        return 0;
    int result = -1;
    t_call* call = nullptr;
    if (t_bind(fd, nullptr, nullptr) == 0)
        call = NewWithAddress<t_call>(fd, T_CALL, addrs->n_addrs[0]);
    if (call != nullptr) {
        zeloo::TimedCall limit(ConnectSeconds);
        result = t_connect(fd, call, nullptr);
    }
    t_free(call, T_CALL);
    if (result == 0)
        return 1;
    CloseEndpoint();
    return 0;
}

short IPCTli::Tprelisten(const char* host, const char* service)
{
    CloseEndpoint();
    FreeCall();
    if (!Bind(HostOrSelf(host), service)) {
        CloseEndpoint();
        return 0;
    }
    callptr = static_cast<t_call*>(t_alloc(fd, T_CALL, T_ALL));
    if (callptr != nullptr)
        return 1;
    std::cout << "unable to alloc a t_call structure in t_listen" << std::endl;
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
    if (addrs->n_cnt < 1 || provider == nullptr) {
        std::cout << "no address or provider to Tprelisten" << std::endl;
        return 0;
    }
    fd = t_open(provider, O_RDWR, nullptr);
    if (fd < 0) {
        std::cout << "Tprelisten t_open failure" << std::endl;
        return 0;
    }
    struct t_bind* request = NewWithAddress<struct t_bind>(fd, T_BIND, addrs->n_addrs[0]);
    if (request == nullptr) {
        std::cout << "Allocation of req failed" << std::endl;
        return 0;
    }
    request->qlen = ListenQueueLength;
    const bool bound = t_bind(fd, request, nullptr) == 0;
    if (!bound)
        PrintFailure("Tprelisten t_bind failed: ", "Tprelisten t_bind failed:");
    t_free(request, T_BIND);
    return bound;
}

short IPCTli::Taccept(const IPCTli& sp)
{
    CloseEndpoint();
    fd = t_open(sp.provider, O_RDWR, nullptr);
    if (fd < 0) {
        std::cout << "Taccept t_open failed: " << t_errno << std::endl;
        return 0;
    }
    if (t_bind(fd, nullptr, nullptr) < 0) {
        std::cout << "Taccept t_bind failed: " << t_errno << std::endl;
        CloseEndpoint();
        return 0;
    }
    if (t_accept(sp.fd, fd, sp.callptr) == 0)
        return 1;

    const int error = errno;
    std::cout << "Taccept t_accept failed: " << t_errno << std::endl;
    errno = error;
    t_error("Taccept t_accept failed:");
    std::cout << "Taccept t_accept errno:" << error << std::endl;
    if (t_errno == TLOOK)
        TakeEvent(sp.fd, "Taccept t_accept failed tlook is: ");
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
    if (t_listen(fd, callptr) == 0)
        return 1;
    // The line names the other operation: this is intended.
    PrintFailure("Tprelisten t_listen failed: ", "t_listen failed:");
    if (t_errno == TLOOK)
        TakeEvent(fd, "Tlisten t_listen failed tlook is: ");
    CloseEndpoint();
    return 0;
}

void IPCTli::Tshutdown()
{
    // In order: an event that a client sends just before it ends must arrive.
    if (t_sndrel(fd) < 0)
        t_snddis(fd, nullptr);
}

short IPCTli::Tclose()
{
    return t_close(std::exchange(fd, -1)) == 0 ? 0 : -1;
}

short IPCTli::send(const char* buff, long bsize)
{
    for (long sent = 0; sent < bsize;) {
        const unsigned rest = static_cast<unsigned>(std::min<long>(bsize - sent, LargestTransfer));
        const int n = t_snd(fd, buff + sent, rest, 0);
        if (n < 0)
            return TCP_ERROR;
        sent += n;
    }
    return NO_ERRORS;
}

// The code of a t_rcv that gave `n`, 0 or less, with its reason printed.
static short ReceiveFailure(int fd, int n)
{
    if (n == 0) {
        PrintFailure("t_recv failed: ", "recv zero data:");
        return ErrorReporter::TCP_ERROR;
    }
    if (t_errno == TLOOK)
        return ErrorReporter::SERVER_GONE;
    if (t_errno == TSYSERR && errno == EINTR)
        return ErrorReporter::IPC_RECV_TIME_OUT;
    PrintFailure("t_recv failed: ", "error on recv:");
    std::cout << "tlook is: " << t_look(fd) << std::endl;
    return ErrorReporter::TCP_ERROR;
}

short IPCTli::recv(char* buff, long bsize)
{
    if (bsize <= 0)
        return NO_ERRORS;
    std::memset(buff, 0, static_cast<size_t>(bsize));
    long received = 0;
    return Receive(buff, bsize, bsize, &received);
}

// Receives until `*received`, the number of bytes at `buff`, has become at least `enough`; takes up to `room`.
short IPCTli::Receive(char* buff, long enough, long room, long* received)
{
    int n = 1;
    {
        std::optional<zeloo::TimedCall> limit; // made when something has to be waited for, and then for all of it
        for (; *received < enough && n > 0; *received += std::max(n, 0)) {
            if (!limit && t_look(fd) == 0)
                limit.emplace(ReceiveSeconds);
            const unsigned rest = static_cast<unsigned>(std::min<long>(room - *received, LargestTransfer));
            n = t_rcv(fd, buff + *received, rest, nullptr);
        }
    }
    return n > 0 ? short(NO_ERRORS) : ReceiveFailure(fd, n);
}

short IPCTli::send_block(TliMsgStruct* pmsg, const void* ptr, long len)
{
    if (len < 0 || len > LongestData || (ptr == nullptr && len > 0)) {
        errno = 0;
        _ReportError(WARNING, BAD_IPC_PARAMETER, "tcp_send_block data or data length not valid.", ModuleId(), __LINE__);
        return TCP_ERROR;
    }
    const char* data = static_cast<const char*>(ptr);
    pmsg->alloc_data_length = static_cast<int32_t>(len);
    // Not rounded up: a length that is a multiple of the block size ends with an empty block, on which receivers rely.
    pmsg->parts_left = static_cast<int16_t>(len / BlockSize);
    pmsg->curr_data_offset = 0;
    TliMsgStruct records[RecordsAtOnce];
    size_t count = 0;
    do {
        const int32_t rest = pmsg->alloc_data_length - pmsg->curr_data_offset;
        pmsg->send_data_length = static_cast<int16_t>(std::min<int32_t>(rest, BlockSize));
        if (pmsg->send_data_length > 0)
            std::memcpy(pmsg->msg_data, data + pmsg->curr_data_offset, static_cast<size_t>(pmsg->send_data_length));
        records[count++] = *pmsg;
        if (count == RecordsAtOnce || pmsg->parts_left == 0) {
            const short code = send(reinterpret_cast<const char*>(records), long(count * sizeof records[0]));
            if (code != NO_ERRORS)
                return code;
            count = 0;
        }
        pmsg->parts_left--;
        pmsg->curr_data_offset += pmsg->send_data_length;
    } while (pmsg->parts_left >= 0);
    return NO_ERRORS;
}

short IPCTli::recv_block(TliMsgStruct* pmsg, Buffer& Data)
{
    Data.PurgeContents();
    short code = recv(reinterpret_cast<char*>(pmsg), sizeof *pmsg);
    if (code == NO_ERRORS)
        code = FirstRecordFits(*pmsg) ? ReceiveData(*pmsg, Data) : RefuseRecord();
    if (code != NO_ERRORS)
        Data.PurgeContents();
    return code;
}

// Gathers the data of the event whose first record, which has been checked, is given.
short IPCTli::ReceiveData(const TliMsgStruct& first, Buffer& Data)
{
    const int32_t total = first.alloc_data_length;
    if (total == 0)
        return NO_ERRORS;
    // An event for which there is no memory is refused at once. But a large block is not kept while its data is only
    // announced.
    Data.ReSize(static_cast<unsigned>(total));
    if (Data.Size() != static_cast<unsigned>(total))
        return RefuseForMemory(total);
    if (Data.Size() > GrowthStep)
        Data.PurgeContents();
    if (!PlaceData(first, Data))
        return RefuseForMemory(total);

    return first.parts_left >= 1 ? ReceiveLaterRecords(first, Data) : short(NO_ERRORS);
}

// Takes the later records of an event, as many at a time as are there, and no byte of the next event.
short IPCTli::ReceiveLaterRecords(const TliMsgStruct& first, Buffer& Data)
{
    const long size = sizeof(TliMsgStruct);
    TliMsgStruct records[RecordsAtOnce];
    long filled = 0; // bytes of `records`
    int next = 0;    // the first of them that has not been taken
    int32_t received = first.send_data_length;
    for (int partsLeft = first.parts_left - 1; partsLeft >= 0; partsLeft--, next++) {
        if (next * size == filled)
            filled = next = 0;
        const long room = size * std::min(RecordsAtOnce, next + partsLeft + 1);
        const short code = Receive(reinterpret_cast<char*>(records), size * (next + 1), room, &filled);
        if (code != NO_ERRORS)
            return code;
        const TliMsgStruct& record = records[next];
        if (record.parts_left != partsLeft || !RecordFits(record, received, first.alloc_data_length))
            return RefuseRecord();
        if (!PlaceData(record, Data))
            return RefuseForMemory(first.alloc_data_length);
        received += record.send_data_length;
    }
    return NO_ERRORS;
}

// Nothing after a malformed record can be trusted to be the start of another.
short IPCTli::RefuseRecord()
{
    CloseEndpoint();
    errno = 0;
    _ReportError(WARNING, TCP_ERROR, "Malformed record received, connection closed.", ModuleId(), __LINE__);
    return TCP_ERROR;
}

short IPCTli::RefuseForMemory(int bytes)
{
    CloseEndpoint();
    char text[80];
    std::snprintf(text, sizeof text, "tcp_recv_block allocation of %d bytes failed.", bytes);
    errno = ENOMEM;
    _ReportError(WARNING, OUT_OF_MEMORY, text, ModuleId(), __LINE__);
    return OUT_OF_MEMORY;
}

void IPCTli::CloseEndpoint()
{
    if (fd >= 0) {
        Tshutdown();
        Tclose();
    }
}

void IPCTli::FreeAddresses()
{
    delete[] std::exchange(provider, nullptr);
    netdir_free(std::exchange(addrs, nullptr), ND_ADDRLIST);
}

void IPCTli::FreeCall()
{
    t_free(std::exchange(callptr, nullptr), T_CALL);
}

void IPCTli::Release()
{
    CloseEndpoint();
    FreeAddresses();
    FreeCall();
}

static bool IsServedByTheDaemon(const char* name)
{
    return std::strcmp(name, "pexserver") == 0 || std::strcmp(name, "orvpmd") == 0;
}

char* IPCTli::get_default_hostname(const char* HostName)
{
    static char host[LongestHostLine + 1];
    if (HostName == nullptr)
        return nullptr;
    if (std::strcmp(HostName, DaemonService) != 0 && !IsServedByTheDaemon(HostName)) {
        zeloo::CopyText(host, HostName);
        return host;
    }
    std::ifstream file(ServerHostFile);
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
    TransportPath path;
    nd_addrlist* list;
    while (const netconfig* config = path.Next(host, service, &list)) {
        if (list->n_cnt > 0) {
            char* text = taddr2uaddr(config, &list->n_addrs[0]);
            std::snprintf(addr, AsciiAddrSize, "%s", zeloo::TextOrEmpty(text));
            std::free(text);
        }
        netdir_free(list, ND_ADDRLIST);
    }
}

short IPCTli::configured_ok(const char* host, const char* service)
{
    char addr[AsciiAddrSize];
    get_ascii_addr(HostOrSelf(host), service, addr);
    return addr[0] != '\0';
}

char* IPCTli::TcptoName(const char* tcpIpAddress)
{
    return zeloo::OfficialHostName(tcpIpAddress);
}

static void PrintTransport(const netconfig& config, std::ostream& out)
{
    out << "===================================================\n";
    out << "Transport provider name:      " << config.nc_netid << '\n';
    out << "Transport protocol family:    " << config.nc_protofmly << '\n';
    out << "The transport device file:    " << config.nc_device << '\n';
    out << "Transport provider semantics: connection-oriented transport"
        << (config.nc_semantics == NC_TPI_COTS_ORD ? " with orderly release" : "") << '\n';
}

static void PrintAddress(const netconfig& config, const netbuf& address, std::ostream& out)
{
    char* text = taddr2uaddr(&config, &address);
    out << zeloo::TextOrEmpty(text) << '\n';
    std::free(text);
    out << "Hex dump of address: ";
    Buffer::hexdumpOn(address.buf, address.len, out);
}

void IPCTli::info(const char* host, const char* service, std::ostream& out)
{
    if (host == nullptr)
        host = HOST_SELF;
    out << "Information for host: " << host << " service: " << zeloo::TextOrEmpty(service) << '\n';
    TransportPath path;
    if (!path.IsOpen()) {
        out << "Unable to setnetpath()\n";
        return;
    }
    bool found = false;
    nd_addrlist* list;
    while (const netconfig* config = path.Next(host, service, &list)) {
        PrintTransport(*config, out);
        out << "There are <" << list->n_cnt << "> addresses for the " << service << " service on " << host << '\n';
        for (int i = 0; i < list->n_cnt; i++)
            PrintAddress(*config, list->n_addrs[i], out);
        found = found || list->n_cnt > 0;
        netdir_free(list, ND_ADDRLIST);
    }
    if (!found)
        out << "No valid addresses found.\n check network files (ie. /etc/hosts, /etc/services)\n";
}

// ---- IPCTliClient -----------------------------------------------------------------------------------------------

IPCTliClient::IPCTliClient(short Object, const char* IPCServerName, const char* ServerNodeName, short CheckForIPCQueue)
    : DestObject(Object), ClientVersion(), ClientProgram(), ClientNode(), ReceiveTimeOut(900), SendTimeOut(60),
      SendersProgramName(), SendersNodeName(), ptli(nullptr)
{
    if (IPCServerName == nullptr)
        return;
    RegisterVersion(ProgInfo::GetVersion());
    RegisterProgramName(ProgInfo::GetFullProgramName());
    RegisterNodeName(ProgInfo::GetNodeName());
    const char* host = ServerNodeName != nullptr ? ServerNodeName : IPCTli::get_default_hostname(IPCServerName);
    if (host == nullptr || *host == '\0')
        return;
    ptli = new (std::nothrow) IPCTli;
    if (ptli == nullptr)
        return;
    if (!ptli->Topen(host, IsServedByTheDaemon(IPCServerName) ? DaemonService : IPCServerName) ||
        (CheckForIPCQueue && !Probe()))
        Disconnect();
}

IPCTliClient::~IPCTliClient()
{
    Disconnect();
}

void IPCTliClient::dumpOn(std::ostream& out) const
{
    out << "IPCTliClient Object Begin\n";
    out << "IPCTliClient::DestObject   : " << DestObject << '\n';
    out << "IPCTliClient::ClientVersion: " << ClientVersion << '\n';
    out << "IPCTliClient::ClientProgram: " << ClientProgram << '\n';
    out << "IPCTliClient::ClientNode   : " << ClientNode << '\n';
    if (Connected())
        ptli->dumpOn(out);
    out << "IPCTliClient Object End\n";
}

// Asks the server whether it serves the object.
short IPCTliClient::Probe()
{
    TliMsgStruct record = {};
    record.object = DestObject;
    record.QueueExistCheck = 1;
    Buffer data;
    return ptli->send_block(&record, nullptr, 0) == NO_ERRORS && ptli->recv_block(&record, data) == NO_ERRORS &&
           record.result_code != 0;
}

void IPCTliClient::Disconnect()
{
    delete std::exchange(ptli, nullptr);
}

void IPCTliClient::RegisterVersion(const char* version)
{
    zeloo::CopyText(ClientVersion, version);
}

void IPCTliClient::RegisterProgramName(const char* program)
{
    zeloo::CopyText(ClientProgram, program);
}

void IPCTliClient::RegisterNodeName(const char* node)
{
    zeloo::CopyText(ClientNode, node);
}

short IPCTliClient::TLISend(const char* FromProg, const char* FromNode, const char* FromVers, short Object, short event,
                            const void* ptr, long len, short response_required, short ack_required)
{
    if (!Connected())
        return IPC_CONNECTION_LOST;
    TliMsgStruct record = {};
    record.object = Object;
    zeloo::CopyText(record.senders_version, FromVers);
    record.event = event;
    zeloo::CopyText(record.orignode, FromNode);
    zeloo::CopyText(record.origprog, FromProg);
    record.response_rqd = response_required;
    record.ack_rqd = ack_required;
    record.result_code = -1;
    return ptli->send_block(&record, ptr, len);
}

short IPCTliClient::TLIReceive(short& REvent, Buffer& Data, short& ResponseRqd, short& AckRqd)
{
    REvent = 0;
    ResponseRqd = 0;
    AckRqd = 0;
    SendersProgramName[0] = '\0';
    SendersNodeName[0] = '\0';
    Data.PurgeContents();
    if (!Connected())
        return IPC_CONNECTION_LOST;

    TliMsgStruct record;
    const short code = ptli->recv_block(&record, Data);
    if (code != NO_ERRORS) {
        Disconnect();
        return code;
    }
    zeloo::CopyText(SendersProgramName, record.origprog);
    zeloo::CopyText(SendersNodeName, record.orignode);
    ResponseRqd = record.response_rqd;
    AckRqd = record.ack_rqd;
    if (record.event == ServerGoingEvent) {
        Disconnect();
        Data.PurgeContents();
        return SERVER_GONE;
    }
    REvent = record.event;
    return record.result_code;
}

short IPCTliClient::send_event(short event, const void* ptr, long len)
{
    return SendToServer(event, ptr, len, 0, 0);
}

short IPCTliClient::send_event_with_response(short event, const void* ptr, long len)
{
    return SendToServer(event, ptr, len, 1, 0);
}

short IPCTliClient::send_event_wait_ack(short event, const void* ptr, long len)
{
    const short code = SendToServer(event, ptr, len, 0, 1);
    if (code != NO_ERRORS)
        return code;
    short ackEvent;
    Buffer ackData;
    return receive_response(ackEvent, ackData);
}

short IPCTliClient::SendToServer(short event, const void* ptr, long len, short response, short ack)
{
    const short code = TLISend(ClientProgram, ClientNode, ClientVersion, DestObject, event, ptr, len, response, ack);
    if (code != NO_ERRORS)
        Disconnect();
    return code;
}

short IPCTliClient::receive_response(short& REvent, Buffer& Data)
{
    REvent = 0;
    if (!Connected())
        return IPC_CONNECTION_LOST;
    short responseRqd;
    short ackRqd;
    return TLIReceive(REvent, Data, responseRqd, ackRqd);
}
