// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the message queues share: queues of their own, the ends of a queue, servers in child processes.
#ifndef TESTS_UNIT_IPCQ_TESTING_H
#define TESTS_UNIT_IPCQ_TESTING_H

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ipcq.h"
#include "Misc/proginfo.h"
#include "tests/support/objects.h"
#include "tests/support/raw_queue_peer.h"
#include "tests/support/short_reports.h"
#include "tests/support/testing.h"

namespace ipcq_testing {

using namespace testing_support;

inline struct msqid_ds QueueStatus(int qid)
{
    struct msqid_ds status = {};
    EXPECT_EQ(msgctl(qid, IPC_STAT, &status), 0) << std::strerror(errno);
    return status;
}

inline unsigned long Waiting(int qid) { return QueueStatus(qid).msg_qnum; }

inline void SetQueueBytes(int qid, unsigned long bytes)
{
    struct msqid_ds status = QueueStatus(qid);
    status.msg_qbytes = bytes;
    EXPECT_EQ(msgctl(qid, IPC_SET, &status), 0) << std::strerror(errno);
}

inline bool QueueExists(int qid)
{
    struct msqid_ds status;
    return msgctl(qid, IPC_STAT, &status) == 0;
}

/// The objects of a kind ("msg", "sem" or "shm") on this host.
inline int AllObjectsOf(const std::string& kind)
{
    const std::string table = ReadFile("/proc/sysvipc/" + kind);
    return static_cast<int>(std::count(table.begin(), table.end(), '\n')) - 1;
}

/// Those that came since the program was started: on the real paths there may be others.
inline int ObjectsOf(const std::string& kind)
{
    static std::map<std::string, int> atStart;
    if (atStart.empty())
        for (const char* each : {"msg", "sem", "shm"})
            atStart[each] = AllObjectsOf(each);
    return AllObjectsOf(kind) - atStart[kind];
}

inline const int CountedBeforeMain = ObjectsOf("msg");

/// Whether the host lets a queue hold so many bytes.
inline bool QueuesMayHold(unsigned long bytes)
{
    const int qid = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    struct msqid_ds status = {};
    msgctl(qid, IPC_STAT, &status);
    status.msg_qbytes = bytes;
    const bool may = msgctl(qid, IPC_SET, &status) == 0;
    msgctl(qid, IPC_RMID, nullptr);
    return may;
}

/// A queue without a key.
struct PrivateQueue {
    int id;
    PrivateQueue() : id(msgget(IPC_PRIVATE, IPC_CREAT | 0660)) {}
    ~PrivateQueue() { msgctl(id, IPC_RMID, nullptr); }
    PrivateQueue(const PrivateQueue&) = delete;
    PrivateQueue& operator=(const PrivateQueue&) = delete;
};

/// The ends of a queue with what a test looks at.
struct Server : IPCQServer {
    using IPCQServer::IPCQServer;
    int Queue() const { return MyQueueID; }
    IPCQMsgSafeArray& Saved() { return MsgArray; }
};

/// A receiver of everybody's events on any queue.
struct Receiver : IPCQBase {
    explicit Receiver(int qid) : IPCQBase("receiver") { MyQueueID = qid; }
    short is_a_server() override { return 1; }
    IPCQMsgSafeArray& Saved() { return MsgArray; }
    long Sender() const { return SendersPID; }
    void Adopt(int qid) { MyQueueID = qid; }
};

struct Client : IPCQClient {
    explicit Client(const char* name, unsigned short wait = 0, long pid = -1) : IPCQClient(7, name, wait, pid) {}
    int Queue() const { return MyQueueID; }
    IPCQMsgSafeArray& Saved() { return MsgArray; }
    void Adopt(int qid, long server)
    {
        MyQueueID = qid;
        ServerPID = server;
    }
};

/// Starts a server process and waits until it can be reached.
inline pid_t StartServer(const std::string& name, const std::function<void(Server&)>& body)
{
    MakeKeyFile(name);
    const pid_t pid = StartChild([&] {
        Server server(name.c_str());
        CHILD_CHECK(server.Created());
        body(server);
    });
    EXPECT_TRUE(WaitUntil([&] {
        long found;
        const int16_t before = IPCMessageMaxDataLen;
        const bool there = connect_to_queue(name.c_str(), 0, &found, -1) >= 0 && found == pid;
        IPCMessageMaxDataLen = before;
        return there;
    }));
    return pid;
}

/// The byte limit that new queues of the sandbox get, and beyond which nobody there can raise one.
inline void SetQueueLimit(unsigned long bytes)
{
    if (InSandbox())
        WriteFile("/proc/sys/kernel/msgmnb", std::to_string(bytes));
}

inline std::string IpcWarning(const std::string& description)
{
    return Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, description);
}

/// How many malformed messages reports speak of: the first at once, those of the next second as a number.
inline long MalformedIn(const std::string& reports, int qid)
{
    const std::string one = IpcWarning("Malformed message dropped from queue " + std::to_string(qid) + ".");
    const std::string many = " malformed messages dropped from queue " + std::to_string(qid) + ".\n";
    long count = 0;
    for (size_t at = 0, end; (end = reports.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = reports.substr(at, end + 1 - at);
        if (line == one)
            count++;
        else if (line.size() > many.size() && line.compare(line.size() - many.size(), many.size(), many) == 0)
            count += std::atol(&line[line.rfind('|') + 1]);
        else
            ADD_FAILURE() << line;
    }
    return count;
}

/// Waits until the next malformed message is reported at once again.
inline void LetReportsRest() { usleep(1100000); }

class IpcqTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SetQueueLimit(500736);
        static char program[] = "/opt/orv/bin/tester";
        static char* arguments[] = {program, nullptr};
        ProgInfo::Initialize(1, arguments, arguments + 1, "3.4");
        IPCMessageMaxDataLen = 1700;
    }
};

} // namespace ipcq_testing

#endif
