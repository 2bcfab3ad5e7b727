// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/misc.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/CstrArray.h"
#include "Misc/Error/report.h"
#include "Misc/cstring.h"
#include "Misc/detail/immortal.h"
#include "Misc/detail/limits.h"
#include "Misc/detail/paths.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"
#include "Misc/mobject.h"
#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: misc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int LongestLine = 511;
static const std::size_t AddressSize = 4; // bytes of an Internet address
static const char Separators[] = " \t";

static const ErrorReporter& Reporter()
{
    const svr4::SavedErrno savedErrno; // making a reporter clears it
    return zeloo::Immortal<ErrorReporter>();
}

static bool secondIsValid = false; // which of the two lists below holds the valid nodes

static CStringSafeArray& NodesList(bool second)
{
    return second ? zeloo::Immortal<CStringSafeArray, struct Second>()
                  : zeloo::Immortal<CStringSafeArray, struct First>();
}

// The lines of the node list file and those learned since it was read.
static CStringSafeArray& ValidNodes() { return NodesList(secondIsValid); }

// Every node that has been rejected.
static CStringSafeArray& InValidNodes() { return zeloo::Immortal<CStringSafeArray, struct InValid>(); }

static timespec nodesFileTime = {0, 0};  // the modification time of the node list file last read
static bool missingFileReported = false; // since the file was last seen
static bool unreadableReported = false;  // since the file was last read

// Adds a copy of `text`, null for one without memory, to the list that reports call `name`. When memory fails or the list
// is full that is reported, and the result is false: a caller somewhere in the network that makes up ever new names must not stop the process.
static bool AddCopy(CStringSafeArray& list, const char* name, const char* text)
{
    std::unique_ptr<CString> entry;
    if (text != nullptr && list.Quantity() < zeloo::MostElements)
        entry.reset(new (std::nothrow) CString(text));
    const bool isWhole = entry != nullptr && *entry == text; // without memory a string is empty
    if (isWhole)
        list.AddItem(entry.release());
    else
        zeloo::Report(Reporter(), ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY, errno, ZELOO_HERE,
                      "failed to allocate memory for %s.", name);
    return isWhole;
}

// Writes a debug line of `label`, `text` and `end` to standard output.
static void Tell(const char* label, const char* text, const char* end = "")
{
    std::cout << label << text << end << std::endl;
}

static void TellAll(const char* label, const CStringSafeArray& list, const char* end = "")
{
    for (CStringSafeArrayIter node(list); node() != nullptr; ++node)
        Tell(label, *node(), end);
}

hostent* GetHost(const char* Name)
{
    hostent* host = Name != nullptr ? gethostbyname(Name) : nullptr;
    if (host == nullptr) {
        if (MonitoredObject::debug() >= 4)
            Tell("WARNING: gethostbyname failed for host ", zeloo::TextOrEmpty(Name));
        return nullptr;
    }
    if (host->h_addrtype != AF_INET) {
        zeloo::Report(Reporter(), ErrorReporter::WARNING, ErrorReporter::INVALID_DATA, errno, ZELOO_HERE,
                      "Invalid address type: (%s) %d.", host->h_name, host->h_addrtype);
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
        zeloo::Report(Reporter(), ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY, errno, ZELOO_HERE,
                      "calloc failed for %d bytes.", static_cast<int>(count * AddressSize));
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

// Opens the node list file without waiting for somebody who writes into a FIFO, which is no list. Null with `errno`.
static FILE* OpenNodes()
{
    const int fd = open(zeloo::NodesFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status;
    const bool isFifo = fd >= 0 && fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
    if (isFifo)
        errno = EINVAL;
    FILE* file = fd >= 0 && !isFifo ? fdopen(fd, "r") : nullptr;
    const svr4::SavedErrno savedErrno;
    if (fd >= 0 && file == nullptr)
        close(fd);
    return file;
}

// Adds the lines of the node list file to `nodes`. 0, or the type of the failure, with `errno`.
static short ReadNodes(CStringSafeArray& nodes)
{
    FILE* file = OpenNodes();
    if (file == nullptr)
        return ErrorReporter::OPENING_FILE;
    char line[LongestLine + 1];
    while (ReadLine(file, line))
        AddCopy(nodes, "ValidNodes", line); // intended: without memory for one the reading goes on
    const svr4::SavedErrno savedErrno;
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    return failed ? ErrorReporter::READING_FROM_FILE : ErrorReporter::NO_ERRORS;
}

// Puts the lines of the node list file in the place of the valid nodes. False when it cannot be read.
static bool ReplaceValidNodes()
{
    CStringSafeArray& nodes = NodesList(!secondIsValid);
    const short failure = ReadNodes(nodes);
    if (failure != ErrorReporter::NO_ERRORS) {
        nodes.DeleteAllItems();
        if (!unreadableReported)
            zeloo::Report(Reporter(), ErrorReporter::WARNING, failure, errno, ZELOO_HERE, "%s", zeloo::NodesFile);
        unreadableReported = true;
        return false;
    }
    unreadableReported = false;
    if (MonitoredObject::debug() >= 4) {
        Tell("List before deletion:", "");
        TellAll("Valid node: ", ValidNodes());
    }
    ValidNodes().DeleteAllItems();
    secondIsValid = !secondIsValid;
    return true;
}

void CheckNodesFile()
{
    struct stat status;
    if (stat(zeloo::NodesFile, &status) != 0) {
        if (!missingFileReported)
            zeloo::Report(Reporter(), ErrorReporter::WARNING, ErrorReporter::OTHER, errno, ZELOO_HERE,
                          "No orvnodes.dat file.");
        missingFileReported = true;
        return;
    }
    missingFileReported = false;
    if (IsLater(status.st_mtim, nodesFileTime) && ReplaceValidNodes())
        nodesFileTime = status.st_mtim; // of before the reading, so that what is written meanwhile is read next time
}

// Reads the token of a node list entry at `at`, which moves behind it; empty when there is none. False without memory.
static bool ReadToken(const char*& at, CString& token)
{
    at += std::strspn(at, Separators);
    const std::size_t length = std::strcspn(at, Separators);
    token = CString(at, static_cast<unsigned>(length));
    at += length;
    return token.strlen() == length;
}

enum Search { IsUnknown, IsKnown, HasNoMemory };

// Looks for the first entry whose name is `node` itself or, with `byAddress`, shares an address with it. `option` gets
// the entry's option.
static Search FindNode(const CString& node, bool byAddress, CString& option)
{
    for (CStringSafeArrayIter entry(ValidNodes()); entry() != nullptr; ++entry) {
        const char* at = *entry();
        CString name;
        if (!ReadToken(at, name))
            return HasNoMemory;
        if (name.strlen() == 0)
            continue;
        if (!byAddress && MonitoredObject::debug() >= 5)
            std::cout << "Comparing [" << static_cast<const char*>(name) << "] with [" << static_cast<const char*>(node)
                      << "]" << std::endl;
        if (byAddress ? !AddrEqual(node, name) : name != node)
            continue;
        return ReadToken(at, option) ? IsKnown : HasNoMemory;
    }
    return IsUnknown;
}

static bool IsRejected(const CString& node)
{
    for (CStringSafeArrayIter rejected(InValidNodes()); rejected() != nullptr; ++rejected) {
        if (MonitoredObject::debug() >= 5) {
            Tell("Invalid Node: [ ", *rejected(), " ]");
            Tell("From Node: [ ", node, " ]");
        }
        if (*rejected() == node)
            return true;
    }
    return false;
}

// Rejects a node. 1 when this is its first time, which is logged, else 0.
static int Reject(const CString& node)
{
    if (IsRejected(node) || !AddCopy(InValidNodes(), "InValidNodes", node))
        return 0;
    const CString description = CString("ORV rejected message from invalid node ") + node;
    Reporter()._ReportErrorExt(ErrorReporter::WARNING_WITH_LOG, ErrorReporter::MISCONFIGURATION_NODES, description,
                               ModuleId(), __LINE__, node);
    return 1;
}

// Without memory nothing tells what the node may do: it may do nothing this time.
static int Refuse(const char* node, CString& option)
{
    option = "";
    zeloo::Report(Reporter(), ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY, errno, ZELOO_HERE,
                  "failed to allocate memory to look for node %s.", node);
    return 0;
}

int GetAccessOptionForNode(const char* FromNode, const char* DefaultVal, CString& ReturnVal)
{
    const bool isNameless = *zeloo::TextOrEmpty(FromNode) == '\0';
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
    Search result = node.strlen() > 0 || isNameless ? FindNode(node, false, ReturnVal) : HasNoMemory;
    const bool isNamed = result == IsKnown;
    if (result == IsUnknown)
        result = FindNode(node, true, ReturnVal);
    if (result == IsUnknown)
        return Reject(node);
    if (result == HasNoMemory)
        return Refuse(node, ReturnVal);
    if (isNamed)
        return 0;
    const CString learned = node + " " + ReturnVal;
    const bool isWhole = learned.strlen() == node.strlen() + 1 + ReturnVal.strlen(); // else the option would be another
    AddCopy(ValidNodes(), "ValidNodes", isWhole ? static_cast<const char*>(learned) : nullptr);
    return 0;
}
