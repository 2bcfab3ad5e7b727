// SPDX-License-Identifier: BSD-2-Clause
// The server of the queue's benchmarks: a process that answers every event with an event without data.
#ifndef BENCH_QUEUE_SERVER_H
#define BENCH_QUEUE_SERVER_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/ipcq.h"
#include "Misc/proginfo.h"
#include "bench/require.h"
#include "bench/two_processes.h"

class QueueServer {
public:
    static constexpr char KeyFile[] = "/tmp/zeloo-queue-bench";
    static const short SlowEvent = 2; // is answered after a second

    QueueServer()
    {
        static char name[] = "queue_bench";
        static char* arguments[] = {name, nullptr};
        ProgInfo::Initialize(1, arguments, arguments + 1, "1.0");
        close(open(KeyFile, O_CREAT | O_WRONLY, 0600));
        int ready[2];
        char byte = 0;
        Require(pipe(ready) == 0, "pipe from the server");
        pid = Fork([&] { Serve(ready[1]); });
        Require(read(ready[0], &byte, 1) == 1 && byte == '1', "server that is ready");
        close(ready[0]);
        close(ready[1]);
    }
    ~QueueServer()
    {
        {
            IPCQClient client(0, KeyFile);
            client.send_event(ExitEvent, nullptr, 0);
        }
        waitpid(pid, nullptr, 0);
        unlink(KeyFile);
    }
    QueueServer(const QueueServer&) = delete;
    QueueServer& operator=(const QueueServer&) = delete;

    pid_t Pid() const { return pid; }

private:
    static const short ExitEvent = 99;

    static void Serve(int ready)
    {
        IPCQServer server(KeyFile);
        const char byte = server.Created() ? '1' : '0';
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

    pid_t pid;
};

#endif
