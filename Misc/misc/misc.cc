#include "Misc/misc.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "Misc/CstrArray.h"
#include "Misc/Error.h"
#include "Misc/cstring.h"
#include "Misc/detail/text.h"
#include "Misc/mobject.h"
#include "svr4/process.h"
#include "svr4/signal.h"

using zeloo::TextOrEmpty;

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: misc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

static const char NodesFile[] = "/var/orv/data/orvnodes.dat";
static const int DescriptorsChecked = 60;
static const int LongestLine = 511;
static const unsigned MostEntries = 256000; // of an array
static const int AddressSize = 4;           // bytes of an Internet address
static const char Separators[] = " \t";
static const char NoMemoryForValidNodes[] = "failed to allocate memory for ValidNodes.";
static const char NoMemoryForInValidNodes[] = "failed to allocate memory for InValidNodes.";

// The object of type T that serves the whole process. It is made on first use, so that static objects of other units
// can use it in their constructors, and never destroyed, so that they can in their destructors.
template <class T>
static T& Shared()
{
    alignas(T) static unsigned char place[sizeof(T)];
    static T* const object = new (place) T;
    return *object;
}

static const ErrorReporter& Reporter()
{
    const int error = errno; // making a reporter clears it
    const ErrorReporter& reporter = Shared<ErrorReporter>();
    errno = error;
    return reporter;
}

namespace {

// The two lists are types of their own so that each is a shared object of its own.
struct ValidNodeList : CStringSafeArray {};
struct InValidNodeList : CStringSafeArray {};

} // namespace

// The lines of the node list file and those learned since it was read.
static CStringSafeArray& ValidNodes()
{
    return Shared<ValidNodeList>();
}

// Every node that has been rejected.
static CStringSafeArray& InValidNodes()
{
    return Shared<InValidNodeList>();
}

static timespec nodesFileTime = {0, 0};  // the modification time of the node list file last read
static bool missingFileReported = false; // since the file was last seen
static char message[512];                // a formatted report text

static CString& At(const CStringSafeArray& list, unsigned i)
{
    return *list[static_cast<int>(i)];
}

// Adds a copy of `text`. False when memory fails or the list is full: a caller somewhere in the network that makes up
// ever new names must not stop the process.
static bool AddCopy(CStringSafeArray& list, const char* text)
{
    CString* entry = list.Quantity() < MostEntries ? new (std::nothrow) CString(text) : nullptr;
    if (entry != nullptr)
        list.AddItem(entry);
    return entry != nullptr;
}

// Writes a debug line of `label`, `text` and `end` to standard output.
static void Tell(const char* label, const char* text, const char* end = "")
{
    std::cout << label << text << end << std::endl;
}

static void TellAll(const char* label, const CStringSafeArray& list, const char* end = "")
{
    for (unsigned i = 0; i < list.Quantity(); i++)
        Tell(label, At(list, i), end);
}

static void ReportNoMemory(const char* description, long line)
{
    Reporter()._ReportError(ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY, description, ModuleId(), line);
}

int NumberOfOpenFiles()
{
    int count = 0;
    struct stat status;
    for (int fd = 0; fd < DescriptorsChecked; fd++)
        if (fstat(fd, &status) == 0)
            count++;
    return count;
}

// Writes out what is buffered, before its descriptors change their meaning or a fork doubles it.
static void FlushOutput()
{
    std::cout.flush();
    std::clog.flush();
    std::fflush(nullptr);
}

static short Failed(const char* what)
{
    std::perror(what);
    return -1;
}

short redirectoutput(const char* LogFileName, short Append)
{
    if (LogFileName == nullptr)
        return 0;
    const int error = errno;
    FlushOutput();
    if (!Append)
        std::rename(LogFileName, CString(LogFileName) + ".old"); // usually there is nothing to rename

    close(0); // so that the log file becomes descriptor 0
    const int fd = open(LogFileName, O_WRONLY | O_CREAT | (Append ? O_APPEND : O_TRUNC), 0644);
    if (fd < 0)
        return Failed("Error opening log file.");
    if (dup2(fd, 0) < 0)
        return Failed("Error redirecting stdin.");
    if (dup2(fd, 1) < 0)
        return Failed("Error redirecting stdout.");
    if (dup2(fd, 2) < 0)
        return Failed("Error redirecting stderr.");
    errno = error; // neither a rename nor a close that found nothing is a failure
    return 0;
}

// Forks; the parent is gone when this returns 0. It goes without its exit handlers and destructors, which would release
// what the child goes on with. -1 when the fork failed.
static int ForkAndLeave()
{
    const pid_t pid = fork();
    if (pid > 0)
        _exit(0);
    return pid < 0 ? -1 : 0;
}

// Leaves the terminal, the session and the parent. 0, or the failure that daemonize returns.
static short Detach()
{
    for (const int sig : {SIGTTOU, SIGTTIN, SIGTSTP})
        svr4::signal(sig, SIG_IGN);

    // A parent that leads the session takes the terminal with it, whose SIGHUP may come before it is ignored.
    sigset_t hangup, earlier;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    sigprocmask(SIG_BLOCK, &hangup, &earlier);
    short result = 0;
    if (ForkAndLeave() < 0) {
        result = Failed("Can't fork first child");
    } else if (svr4::setpgrp() < 0) {
        std::cerr << "can't change process group" << std::endl;
        result = -2;
    } else {
        svr4::signal(SIGHUP, SIG_IGN);
    }
    sigprocmask(SIG_SETMASK, &earlier, nullptr);

    // The second child leads no process group and so can never get a terminal again.
    if (result == 0 && ForkAndLeave() < 0)
        result = Failed("Can't fork second child");
    return result;
}

short daemonize(const char* LogFileName, short Append)
{
    FlushOutput();
    if (getppid() == 1)
        std::cerr << "Already a daemon. ppid is 1." << std::endl;
    else if (const short failure = Detach())
        return failure;

    for (int fd = 0; fd < DescriptorsChecked; fd++)
        close(fd);
    errno = 0;
    umask(0);
    svr4::signal(SIGCLD, SIG_IGN); // children of the daemon never become zombies
    return redirectoutput(LogFileName, Append);
}

hostent* GetHost(const char* Name)
{
    hostent* host = Name != nullptr ? gethostbyname(Name) : nullptr;
    if (host == nullptr) {
        if (MonitoredObject::debug() >= 4)
            Tell("WARNING: gethostbyname failed for host ", TextOrEmpty(Name));
        return nullptr;
    }
    if (host->h_addrtype != AF_INET) {
        std::snprintf(message, sizeof message, "Invalid address type: (%s) %d.", host->h_name, host->h_addrtype);
        Reporter()._ReportError(ErrorReporter::WARNING, ErrorReporter::INVALID_DATA, message, ModuleId(), __LINE__);
        return nullptr;
    }
    return host;
}

static std::size_t AddressCount(const hostent* host)
{
    std::size_t count = 0;
    while (host->h_addr_list[count] != nullptr)
        count++;
    return count;
}

// Whether `host` has one of the `count` addresses that stand one behind the other at `addresses`.
static bool HasOneOf(const hostent* host, const char* addresses, std::size_t count)
{
    for (char** address = host->h_addr_list; *address != nullptr; address++)
        for (std::size_t i = 0; i < count; i++)
            if (std::memcmp(*address, addresses + i * AddressSize, AddressSize) == 0)
                return true;
    return false;
}

int AddrEqual(const char* FromNode, const char* NName)
{
    const hostent* host = GetHost(NName);
    const std::size_t count = host != nullptr ? AddressCount(host) : 0;
    if (count == 0)
        return 0;
    char* addresses = static_cast<char*>(std::calloc(count, AddressSize)); // the next look-up overwrites the result
    if (addresses == nullptr) {
        std::snprintf(message, sizeof message, "calloc failed for %d bytes.", static_cast<int>(count * AddressSize));
        ReportNoMemory(message, __LINE__);
        return 0;
    }
    for (std::size_t i = 0; i < count; i++)
        std::memcpy(addresses + i * AddressSize, host->h_addr_list[i], AddressSize);
    host = GetHost(FromNode);
    const int equal = host != nullptr && HasOneOf(host, addresses, count);
    std::free(addresses);
    return equal;
}

static bool IsLater(const timespec& a, const timespec& b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

// Reads a line, or the first LongestLine characters of it; the rest is left for the next call. False at the end.
static bool ReadLine(FILE* file, char (&line)[LongestLine + 1])
{
    int length = 0;
    int c;
    while ((c = std::getc(file)) != EOF && c != '\n') {
        if (length == LongestLine) {
            std::ungetc(c, file);
            break;
        }
        line[length++] = static_cast<char>(c);
    }
    line[length] = '\0';
    return c != EOF || length > 0;
}

static void ReadValidNodes()
{
    FILE* file = std::fopen(NodesFile, "r");
    if (file == nullptr)
        return;
    char line[LongestLine + 1];
    while (ReadLine(file, line))
        if (!AddCopy(ValidNodes(), line))
            ReportNoMemory(NoMemoryForValidNodes, __LINE__);
    std::fclose(file);
}

void CheckNodesFile()
{
    struct stat status;
    if (stat(NodesFile, &status) != 0) {
        if (!missingFileReported)
            Reporter()._ReportError(ErrorReporter::WARNING, ErrorReporter::OTHER, "No orvnodes.dat file.", ModuleId(),
                                    __LINE__);
        missingFileReported = true;
        return;
    }
    missingFileReported = false;
    if (!IsLater(status.st_mtim, nodesFileTime))
        return;
    if (MonitoredObject::debug() >= 4) {
        Tell("List before deletion:", "");
        TellAll("Valid node: ", ValidNodes());
    }
    ValidNodes().DeleteAllItems();
    ReadValidNodes();
    nodesFileTime = status.st_mtim; // of before the reading, so that what is written meanwhile is read next time
}

// The token of a node list entry at `at`, which moves behind it; empty when there is none.
static CString NextToken(const char*& at)
{
    at += std::strspn(at, Separators);
    const std::size_t length = std::strcspn(at, Separators);
    const CString token(at, static_cast<unsigned>(length));
    at += length;
    return token;
}

// Looks for the first entry whose name is `node` itself or, with `byAddress`, shares an address with it. `option` gets
// the entry's option. False when there is none.
static bool FindNode(const CString& node, bool byAddress, CString& option)
{
    const CStringSafeArray& nodes = ValidNodes();
    for (unsigned i = 0; i < nodes.Quantity(); i++) {
        const char* at = At(nodes, i);
        const CString name = NextToken(at);
        if (name.strlen() == 0)
            continue;
        if (!byAddress && MonitoredObject::debug() >= 5)
            std::cout << "Comparing [" << static_cast<const char*>(name) << "] with [" << static_cast<const char*>(node)
                      << "]" << std::endl;
        if (byAddress ? !AddrEqual(node, name) : name != node)
            continue;
        option = NextToken(at);
        return true;
    }
    return false;
}

static bool IsRejected(const CString& node)
{
    const CStringSafeArray& rejected = InValidNodes();
    for (unsigned i = 0; i < rejected.Quantity(); i++) {
        if (MonitoredObject::debug() >= 5) {
            Tell("Invalid Node: [ ", At(rejected, i), " ]");
            Tell("From Node: [ ", node, " ]");
        }
        if (At(rejected, i) == node)
            return true;
    }
    return false;
}

// Rejects a node. 1 when this is its first time, which is logged, else 0.
static int Reject(const CString& node)
{
    if (IsRejected(node))
        return 0;
    if (!AddCopy(InValidNodes(), node)) {
        ReportNoMemory(NoMemoryForInValidNodes, __LINE__);
        return 0;
    }
    const CString description = CString("ORV rejected message from invalid node ") + node;
    Reporter()._ReportErrorExt(ErrorReporter::WARNING_WITH_LOG, ErrorReporter::MISCONFIGURATION_NODES, description,
                               ModuleId(), __LINE__, node);
    return 1;
}

int GetAccessOptionForNode(const char* FromNode, const char* DefaultVal, CString& ReturnVal)
{
    const CString node(FromNode); // copies, since ReturnVal may hold the texts
    const CString standard(DefaultVal);
    if (MonitoredObject::debug() >= 4) {
        Tell("Checking node [", node, "] for access permission.");
        TellAll("Invalid node: ", InValidNodes());
        TellAll("Valid node: [", ValidNodes(), "]");
        Tell("DefaultVal: remote_access option = ", standard);
    }
    ReturnVal = standard;
    if (standard == "global")
        return 0;
    CheckNodesFile();
    if (FindNode(node, false, ReturnVal))
        return 0;
    if (!FindNode(node, true, ReturnVal))
        return Reject(node);
    const CString learned = node + " " + ReturnVal; // the next time it is found without a look-up
    if (!AddCopy(ValidNodes(), learned))
        ReportNoMemory(NoMemoryForValidNodes, __LINE__);
    return 0;
}
