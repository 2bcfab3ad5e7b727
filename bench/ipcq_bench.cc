// SPDX-License-Identifier: BSD-2-Clause
// A message queue with the library's protocol beside the same bytes over msgsnd and msgrcv alone: a request with its
// response.
#include <cstring>
#include <ctime>
#include <fstream>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/queue_server.h"
#include "bench/require.h"

namespace {

const int HeaderSize = IPCMessageNonDataSize;

// A server in a process of its own, and a client of it.
class LibraryEnds {
public:
    LibraryEnds() : client(0, QueueServer::KeyFile) { IPCMessageMaxDataLen = BlockSize; }
    IPCQClient& Client() { return client; }
    /// The processor time that the server has taken.
    double ServerSeconds() const
    {
        clockid_t clock;
        Require(clock_getcpuclockid(server.Pid(), &clock) == 0, "clock of the server");
        return Seconds(clock);
    }
    static double Seconds(clockid_t clock)
    {
        struct timespec time;
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

    /// The capacity of the library's queue.
    static unsigned long QueueBytes()
    {
        const LibraryEnds ends;
        struct msqid_ds status = {};
        msgctl(msgget(ftok_orvm(QueueServer::KeyFile), 0), IPC_STAT, &status);
        return status.msg_qbytes;
    }

private:
    QueueServer server;
    IPCQClient client;
};

struct RawMessage {
    long type;
    int last; // the block after which the other end answers; the first bytes of the text
    char text[HeaderSize + BlockSize];
};

const long ToServer = 1;
const long ToClient = 2;

// The other end of the floor: takes messages and answers those that are the last of something.
void ServeRaw(int queue)
{
    RawMessage message;
    while (msgrcv(queue, &message, sizeof message - sizeof(long), ToServer, 0) >= 0)
        if (message.last) {
            message.type = ToClient;
            if (msgsnd(queue, &message, HeaderSize, 0) < 0)
                return;
        }
}

class RawEnds {
public:
    RawEnds() : queue(msgget(IPC_PRIVATE, IPC_CREAT | 0600))
    {
        struct msqid_ds status;
        msgctl(queue, IPC_STAT, &status);
        status.msg_qbytes = LibraryEnds::QueueBytes();
        msgctl(queue, IPC_SET, &status);
        std::memset(&message, 0, sizeof message);
        server = Fork([this] { ServeRaw(queue); });
    }
    ~RawEnds()
    {
        msgctl(queue, IPC_RMID, nullptr);
        waitpid(server, nullptr, 0);
    }

    bool Send(const char* data, size_t length, bool last)
    {
        message.type = ToServer;
        message.last = last;
        std::memcpy(message.text + HeaderSize - sizeof message.last, data, length);
        return msgsnd(queue, &message, HeaderSize + length, 0) == 0;
    }
    bool TakeAnswer() { return msgrcv(queue, &message, sizeof message - sizeof(long), ToClient, 0) >= 0; }

private:
    int queue;
    pid_t server;
    RawMessage message;
};

// Requests that are answered at once.
void Serve(LibraryEnds& ends, int count)
{
    short event;
    Buffer data;
    for (int i = 0; i < count; i++)
        Require(ends.Client().send_event_with_response(1, nullptr, 0) == 0 &&
                    ends.Client().receive_response(event, data) == 0,
                "request with its response");
}

// The processor time that it costs to wait a second for an answer, of a client that has had others.
void SlowAnswer(benchmark::State& state)
{
    LibraryEnds ends;
    short event;
    Buffer data;
    Serve(ends, 100);
    const double before = LibraryEnds::Seconds(CLOCK_PROCESS_CPUTIME_ID);
    for (auto _ : state) {
        if (ends.Client().send_event_with_response(QueueServer::SlowEvent, nullptr, 0) != 0 ||
            ends.Client().receive_response(event, data) != 0)
            state.SkipWithError("no response");
        state.SetIterationTime(LibraryEnds::Seconds(CLOCK_PROCESS_CPUTIME_ID) - before);
    }
    state.SetLabel("processor time of the client");
}

// The processor time of a server for which nothing comes, after it has served.
void IdleServer(benchmark::State& state)
{
    LibraryEnds ends;
    Serve(ends, 100);
    sleep(1);
    const double before = ends.ServerSeconds();
    for (auto _ : state) {
        sleep(static_cast<unsigned>(state.range(0)));
        state.SetIterationTime(ends.ServerSeconds() - before);
    }
    state.SetLabel("processor time of the server");
}

BENCHMARK(SlowAnswer)->Iterations(1)->UseManualTime();
BENCHMARK(IdleServer)->ArgName("seconds")->Arg(5)->Iterations(1)->UseManualTime();

// The limit of the host on the bytes in a new queue, which the sandbox has for itself.
class QueueLimit {
public:
    static constexpr char File[] = "/proc/sys/kernel/msgmnb";

    QueueLimit() { Set(500736); }
    ~QueueLimit() { Set(16384); }

private:
    static void Set(int bytes)
    {
        std::ofstream file(File);
        file << bytes << std::flush;
        Require(file.good(), File);
    }
};

// Ends whose queue has the capacity that servers ask for.
template <class Ends>
class OfLargeQueue : private QueueLimit, public Ends {
};

bool Register()
{
    RegisterRequests<LibraryEnds, RawEnds>();
    if (access(QueueLimit::File, W_OK) == 0) // not without namespaces
        RegisterRequests<OfLargeQueue<LibraryEnds>, OfLargeQueue<RawEnds>>("LargeQueue", true,
                                                                           {0, 1699, 16 << 10, 1 << 20, 16 << 20});
    return true;
}

const bool Registered = Register();

} // namespace
