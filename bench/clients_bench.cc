// SPDX-License-Identifier: BSD-2-Clause
// Many clients of one queue, each of which asks again as soon as it has its answer: the library beside a bare server that
// takes all requests that wait before it answers them (one that does not can stand still, its queue full of requests).
#include <chrono>
#include <cstring>
#include <vector>

#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/queue_server.h"
#include "bench/require.h"

namespace {

const int RequestLength = 300;
const int Requests = 20000; // of all clients together

// Runs `count` processes that each call `client` with the number of its requests, all begun at once. Seconds until the
// last one has ended.
template <class Client>
double Run(int count, Client client)
{
    int start[2];
    int ready[2];
    Require(pipe(start) == 0 && pipe(ready) == 0, "pipes to the clients");
    std::vector<pid_t> clients;
    clients.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; i++)
        clients.push_back(Fork([&] {
            close(start[1]);
            client([&] {
                char byte = 0;
                Require(write(ready[1], &byte, 1) == 1 && read(start[0], &byte, 1) == 0, "start of a client");
                return Requests / count;
            });
        }));
    char byte;
    for (int i = 0; i < count; i++)
        Require(read(ready[0], &byte, 1) == 1, "a client that is ready");
    const auto begin = std::chrono::steady_clock::now();
    for (const int fd : {start[1], start[0], ready[0], ready[1]})
        close(fd);
    for (const pid_t pid : clients) {
        int status = 0;
        Require(waitpid(pid, &status, 0) == pid && status == 0, "a client that has its answers");
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// ---- The library ----

void Clients(benchmark::State& state)
{
    const Pin pin;
    for (auto _ : state) {
        const QueueServer server;
        const double seconds = Run(static_cast<int>(state.range(0)), [](auto start) {
            IPCQClient client(0, QueueServer::KeyFile);
            const std::string request(RequestLength, 'r');
            short event;
            Buffer data;
            for (int left = start(); left > 0; left--)
                Require(client.send_event_with_response(1, request.data(), RequestLength) == 0 &&
                            client.receive_response(event, data) == 0,
                        "request with its response");
        });
        state.SetIterationTime(seconds);
    }
}

// ---- Bare messages of the same size ----

const long ToServer = 1;

struct RawMessage {
    long type;
    long sender;
    char text[IPCMessageNonDataSize + RequestLength - sizeof(long)];
};

const size_t RequestSize300 = sizeof(RawMessage) - sizeof(long);

// A bare server. Where the queue is full of requests it takes these before it goes on answering.
class RawServer {
public:
    explicit RawServer(int theQueue) : queue(theQueue) {}
    // Until the queue has gone.
    void Serve()
    {
        while (Take(0)) {
            while (Take(IPC_NOWAIT)) {
            }
            for (size_t next = 0; next < waiting.size(); next++)
                if (!Answer(waiting[next].sender))
                    return;
            waiting.clear();
        }
    }

private:
    bool Take(int flags)
    {
        RawMessage message;
        if (msgrcv(queue, &message, RequestSize300, ToServer, flags) < 0)
            return false;
        waiting.push_back(message);
        return true;
    }
    bool Answer(long client)
    {
        RawMessage answer = {};
        answer.type = client;
        while (msgsnd(queue, &answer, IPCMessageNonDataSize, IPC_NOWAIT) != 0) {
            if (errno != EAGAIN)
                return false;
            if (!Take(IPC_NOWAIT))
                sched_yield();
        }
        return true;
    }

    int queue;
    std::vector<RawMessage> waiting;
};

void ClientsFloor(benchmark::State& state)
{
    const Pin pin;
    for (auto _ : state) {
        const int queue = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
        const pid_t server = Fork([=] { RawServer(queue).Serve(); });
        const double seconds = Run(static_cast<int>(state.range(0)), [=](auto start) {
            RawMessage message = {};
            for (int left = start(); left > 0; left--) {
                message.type = ToServer;
                message.sender = getpid();
                Require(msgsnd(queue, &message, RequestSize300, 0) == 0 &&
                            msgrcv(queue, &message, RequestSize300, getpid(), 0) >= 0,
                        "message with its answer");
            }
        });
        msgctl(queue, IPC_RMID, nullptr);
        waitpid(server, nullptr, 0);
        state.SetIterationTime(seconds);
    }
}

BENCHMARK(Clients)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Iterations(1)->UseManualTime();
BENCHMARK(ClientsFloor)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Iterations(1)->UseManualTime();

} // namespace
