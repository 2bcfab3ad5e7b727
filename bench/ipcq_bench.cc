// A message queue with the library's protocol beside the same bytes over msgsnd and msgrcv alone: a request with its
// response, and 1 MiB in blocks. Both ends run on one core.
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/ipcq.h"
#include "Misc/proginfo.h"
#include "bench/two_processes.h"

namespace {

const int HeaderSize = IPCMessageNonDataSize;
const short ExitEvent = 99;
const char KeyFile[] = "/tmp/zeloo-ipcq-bench";

const short SlowEvent = 2;

// Answers every event with an event without data, a slow one after a second.
void Serve(int ready)
{
    IPCQServer server(KeyFile);
    char byte = server.Created() ? '1' : '0';
    if (write(ready, &byte, 1) != 1 || !server.Created())
        return;
    short event, response, ack;
    Buffer data;
    while (server.receive_event(event, data, response, ack) == -1 && event != ExitEvent) {
        if (event == SlowEvent)
            sleep(1);
        if (response)
            server.send_response(event, 0, nullptr, 0);
    }
}

// A server in a process of its own, and a client of it.
class LibraryEnds {
public:
    LibraryEnds()
    {
        static char name[] = "ipcq_bench";
        static char* arguments[] = {name, nullptr};
        ProgInfo::Initialize(1, arguments, arguments + 1, "1.0");
        close(open(KeyFile, O_CREAT | O_WRONLY, 0600));
        int ready[2];
        char byte = 0;
        if (pipe(ready) != 0)
            std::abort();
        server = Fork([&] { Serve(ready[1]); });
        if (read(ready[0], &byte, 1) != 1 || byte != '1')
            std::abort();
        close(ready[0]);
        close(ready[1]);
        client = new IPCQClient(0, KeyFile);
        IPCMessageMaxDataLen = BlockSize;
    }
    ~LibraryEnds()
    {
        client->send_event(ExitEvent, nullptr, 0);
        delete client;
        waitpid(server, nullptr, 0);
        unlink(KeyFile);
    }
    IPCQClient& Client() { return *client; }
    /// The processor time that the server has taken.
    double ServerMicroseconds() const
    {
        clockid_t clock;
        if (clock_getcpuclockid(server, &clock) != 0)
            std::abort();
        return Microseconds(clock);
    }
    static double Microseconds(clockid_t clock)
    {
        struct timespec time;
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
    }

    /// The capacity of the library's queue.
    static unsigned long QueueBytes()
    {
        const LibraryEnds ends;
        struct msqid_ds status = {};
        msgctl(msgget(ftok_orvm(KeyFile), 0), IPC_STAT, &status);
        return status.msg_qbytes;
    }

private:
    pid_t server;
    IPCQClient* client;
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

// What it costs to wait a second for an answer.
void SlowAnswer(benchmark::State& state)
{
    LibraryEnds ends;
    short event;
    Buffer data;
    const double before = LibraryEnds::Microseconds(CLOCK_PROCESS_CPUTIME_ID);
    for (auto _ : state)
        if (ends.Client().send_event_with_response(SlowEvent, nullptr, 0) != 0 ||
            ends.Client().receive_response(event, data) != 0)
            state.SkipWithError("no response");
    state.counters["client us"] = LibraryEnds::Microseconds(CLOCK_PROCESS_CPUTIME_ID) - before;
}

// What a server costs for which nothing comes, after it has served.
void IdleServer(benchmark::State& state)
{
    LibraryEnds ends;
    short event;
    Buffer data;
    for (int i = 0; i < 100; i++)
        if (ends.Client().send_event_with_response(1, nullptr, 0) != 0 ||
            ends.Client().receive_response(event, data) != 0)
            state.SkipWithError("no response");
    sleep(1);
    const double before = ends.ServerMicroseconds();
    for (auto _ : state)
        sleep(static_cast<unsigned>(state.range(0)));
    state.counters["server us"] = ends.ServerMicroseconds() - before;
}

BENCHMARK(SlowAnswer)->Iterations(1)->UseRealTime();
BENCHMARK(IdleServer)->ArgName("seconds")->Arg(5)->Iterations(1)->UseRealTime();

const bool Registered = (RegisterRequests<LibraryEnds, RawEnds>(), true);

} // namespace
