// What the tests of the message queues share: queues of their own, records made by hand, servers in child processes.
#ifndef TESTS_UNIT_IPCQ_TESTING_H
#define TESTS_UNIT_IPCQ_TESTING_H

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ipcq.h"
#include "Misc/proginfo.h"
#include "tests/support/testing.h"

namespace ipcq_testing {

using namespace testing_support;

const short Ack = static_cast<short>(0xFFFE);
const short MoreData = static_cast<short>(0xFFFD);

inline long AckChannel(long sender, long receiver)
{
    return 251658239L - sender + receiver;
}
inline long DataChannel(long sender, long receiver)
{
    return 268435455L - sender + receiver;
}

/// The host's view of a message.
struct RawMessage {
    long type;
    char text[4096];
};

inline int SendRaw(int qid, long type, const void* text, size_t length, int flags = 0)
{
    RawMessage raw;
    raw.type = type;
    std::memcpy(raw.text, text, length);
    return msgsnd(qid, &raw, length, flags);
}

/// Puts a record on a queue by hand, as long as its data or as `length` says.
inline int SendRecord(int qid, long type, const IPCQMessage& msg, long length = -1)
{
    const size_t used = static_cast<size_t>(length >= 0 ? length : 300 + msg.msg_data_len);
    return SendRaw(qid, type, reinterpret_cast<const char*>(&msg) + 4, used);
}

/// Takes a record off a queue by hand; its length, or -1.
inline ssize_t TakeRecord(int qid, long type, IPCQMessage* msg, int flags = IPC_NOWAIT)
{
    RawMessage raw;
    const ssize_t n = msgrcv(qid, &raw, sizeof raw.text, type, flags);
    std::memset(static_cast<void*>(msg), 0, sizeof *msg);
    if (n >= 0) {
        msg->mtype = static_cast<int32_t>(raw.type);
        std::memcpy(reinterpret_cast<char*>(msg) + 4, raw.text, static_cast<size_t>(n));
    }
    return n;
}

/// A sound single-block event.
inline IPCQMessage Event(short event, long sender, const std::string& data = "")
{
    IPCQMessage msg;
    std::memset(static_cast<void*>(&msg), 0, sizeof msg);
    std::strcpy(msg.senders_version, "1.0");
    msg.senders_pid = static_cast<int32_t>(sender);
    msg.event = event;
    std::strcpy(msg.destprog, "server");
    std::strcpy(msg.origprog, "program");
    std::strcpy(msg.orignode, "node");
    msg.result_code = -1;
    msg.alloc_data_length = static_cast<int32_t>(data.size());
    msg.shmem_id = -1;
    msg.msg_data_len = static_cast<int32_t>(data.size());
    std::memcpy(msg.msg_data, data.data(), data.size());
    return msg;
}

inline struct msqid_ds QueueStatus(int qid)
{
    struct msqid_ds status = {};
    EXPECT_EQ(msgctl(qid, IPC_STAT, &status), 0) << std::strerror(errno);
    return status;
}

inline unsigned long Waiting(int qid)
{
    return QueueStatus(qid).msg_qnum;
}

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

inline const int countedBeforeMain = ObjectsOf("msg");

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

/// Gives up the privileges over the sandbox's kernel objects (in a child process: there is no way back). The
/// effective user is then the super-user by name only, or nobody. False where the host refuses that.
inline bool DropPrivileges(bool keepRootName)
{
    if (unshare(CLONE_NEWUSER) != 0)
        return false;
    if (!keepRootName)
        return geteuid() != 0;
    const int fd = open("/proc/self/uid_map", O_WRONLY);
    const bool written = fd >= 0 && write(fd, "0 0 1", 5) == 5;
    if (fd >= 0)
        close(fd);
    return written && geteuid() == 0;
}

inline std::string Pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; i++)
        text[i] = static_cast<char>((i * 31 + i / 251) & 0xFF);
    return text;
}

inline std::string Contents(Buffer& data)
{
    return data.Size() == 0 ? std::string() : std::string(&data[0], data.Size());
}

/// The byte limit that new queues of the sandbox get, and beyond which nobody there can raise one.
inline void SetQueueLimit(unsigned long bytes)
{
    if (InSandbox())
        WriteFile("/proc/sys/kernel/msgmnb", std::to_string(bytes));
}

/// The descriptions of the reports that `body` makes, each with its severity and error type before it.
inline std::string Reports(const std::function<void()>& body)
{
    const std::string text = CaptureStderr(body);
    std::string reports;
    for (size_t at = 0; (at = text.find("\nErrorReporter: ", at)) != std::string::npos; at++) {
        const std::string report = text.substr(at);
        reports += ReportField(report, "  Severity Level=") + "|" + ReportField(report, "  Error Type= ") + "|" +
                   ReportField(report, "  Description= ") + "\n";
    }
    return reports;
}

/// A report as Reports gives it.
inline std::string Report(short severity, short type, const std::string& description)
{
    return std::string(ErrorReporter::GetErrorSeverity(severity)) + "|" + ErrorReporter::GetErrorType(type) + "|" +
           description + "\n";
}

inline std::string IpcWarning(const std::string& description)
{
    return Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, description);
}

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
