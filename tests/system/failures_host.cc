// SPDX-License-Identifier: BSD-2-Clause
// The scenarios of what is kept on the host: files, locks, logs, dumps, shared memory.
#include <csignal>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Misc/FileList.h"
#include "Misc/buffer.h"
#include "Misc/ipcq.h"
#include "Misc/lockedfile.h"
#include "Misc/misc.h"
#include "Misc/mobject.h"
#include "tests/system/failures_testing.h"

using namespace testing_support;

namespace failures_testing {

bool Files(const std::string& directory)
{
    for (const char* name : {"a.log", "b.log", "c.txt"})
        Buffer(1).SaveBufferToFile(PathIn(directory, name), 0);
    FileList files(directory.c_str(), "*.log");
    CHILD_CHECK(!files.FindFile(PathIn(directory, "c.txt")));
    const bool isFound = files.FindFile(PathIn(directory, "a.log")) && files.FindFile(PathIn(directory, "b.log"));
    files.sort();
    files.RemoveAll();
    const bool isGone = access(PathIn(directory, "a.log"), F_OK) != 0;
    return isFound && isGone;
}

// The lock file of a process that there can't be. None when that fails.
static void WriteStale(const char* path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd >= 0 && write(fd, "99999999l", 9) != 9)
        unlink(path);
    if (fd >= 0)
        close(fd);
}

bool Locks(const std::string& directory)
{
    CString name(PathIn(directory, "resource"));
    unlink(PathIn(directory, "resource.lock")); // which names this process, where it could not be deleted
    bool isLocked;
    {
        LockedFileDesc lock(name, 0, 0600);
        CHILD_CHECK(!lock.Locked() || lock.fd() >= 0);
        isLocked = lock.Locked() != 0;
        const LockFile second(name, 0); // which it may get where this process does not seem to exist
    }
    WriteStale(PathIn(directory, "resource.lock"));
    const LockFile successor(name, 0);
    CHILD_CHECK(successor.Locked() ? successor.Error() == 0 : successor.Error() != 0);
    return isLocked && successor.Locked();
}

// A node that was known stays known while its list cannot be read, and while that is reported nobody else is.
bool Nodes(const std::string&)
{
    static const char file[] = "/var/orv/data/orvnodes.dat";
    static long time = 1000;
    static bool isKnown = false;
    if (!InSandbox())
        return true;
    const int fd = open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    const bool isWritten = fd >= 0 && write(fd, "known full\n", 11) == 11;
    if (fd >= 0)
        close(fd);
    if (!isWritten)
        return false;
    const struct timespec times[2] = {{++time, 0}, {time, 0}};
    utimensat(AT_FDCWD, file, times, 0);
    const int reports = ErrorReporter::GetErrorCount();
    CString option;
    GetAccessOptionForNode("known", "none", option);
    const bool isFound = option == "full";
    CHILD_CHECK(isFound || !isKnown || ErrorReporter::GetErrorCount() > reports);
    isKnown |= isFound;
    GetAccessOptionForNode("unknown", "none", option);
    CHILD_CHECK(option == "none" || option == "");
    return isFound;
}

static int logs = -1; // where the records arrive

void ListenForLogs()
{
    struct sockaddr_un address = {AF_UNIX, "/dev/log"};
    if (logs >= 0)
        return;
    logs = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    unlink(address.sun_path);
    if (bind(logs, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0)
        std::perror("/dev/log");
}

void ForgetLogs()
{
    char record[2000];
    while (logs >= 0 && read(logs, record, sizeof record) > 0) {
    }
}

bool Logs(const std::string&)
{
    if (logs < 0)
        return true;
    ForgetLogs();
    const ErrorReporter reporter;
    const int reports = ErrorReporter::GetErrorCount();
    reporter._ReportError(ErrorReporter::WARNING_WITH_LOG, ErrorReporter::OTHER, "to be logged", "$Id: unit.cc,v 1 $",
                          1);
    CHILD_CHECK(ErrorReporter::GetErrorCount() == reports + 1);
    char record[2000];
    int arrived = 0;
    for (ssize_t n; (n = read(logs, record, sizeof record)) > 0;)
        arrived += std::string_view(record, static_cast<size_t>(n)).find("to be logged") != std::string_view::npos;
    CHILD_CHECK(arrived <= 1 || !nothingFails);
    return arrived == 1;
}

static bool IsWholeDump(const char* file)
{
    char text[4000];
    const int fd = open(file, O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd < 0 ? 0 : read(fd, text, sizeof text);
    if (fd >= 0)
        close(fd);
    const std::string_view end = "*** End Dump of all Monitored Objects ***\n";
    const std::string_view dump(text, n > 0 ? static_cast<size_t>(n) : 0);
    return dump.size() > end.size() && dump.substr(dump.size() - end.size()) == end;
}

// A dump on demand: whatever becomes of it, the program goes on.
bool Dumps(const std::string& directory)
{
    struct Object : MonitoredObject {
        void dumpOn(std::ostream& out) const override { out << "an object" << std::endl; }
    };
    const Object object;
    const PathIn file(directory, "state");
    unlink(file);
    MonitoredObject::SetDumpStateFileName(file);
    std::raise(SIGUSR1);
    const bool isDumped = IsWholeDump(file) || (nothingFails && WaitUntil([&] { return IsWholeDump(file); }));
    MonitoredObject::SetDumpStateFileName(nullptr);
    return isDumped;
}

bool Segments(const std::string&)
{
    const int segment = copy_to_shmem("shared data", 11);
    Buffer data;
    const bool isCopied = copy_from_shmem(segment, data, 0, 11) != 0;
    if (isCopied)
        CHILD_CHECK(data.Size() == 11 ? std::memcmp(&data[0], "shared data", 11) == 0 : data.Size() == 0);
    if (segment >= 0)
        delete_shmem_id(segment);
    return isCopied && data.Size() == 11;
}

} // namespace failures_testing
