// SPDX-License-Identifier: BSD-2-Clause
// The server of a storm: checks every request and answers it.
#include <cstdio>
#include <map>
#include <memory>

#include <sys/msg.h>
#include <unistd.h>

#include "Misc/ipcq.h"
#include "tests/system/storm/shared.h"
#include "tests/system/storm/traffic.h"

namespace storm {

namespace {

struct Server : IPCQServer {
    using IPCQServer::IPCQServer;
    struct msqid_ds Status() const
    {
        struct msqid_ds status = {};
        msgctl(MyQueueID, IPC_STAT, &status);
        return status;
    }
};

// What the server has had from a client.
struct Account {
    uint32_t last = 0; // 0: nothing yet
    uint32_t givenUp = 0;
};

// The server may not get its queue at once when the clients are just clearing that of its predecessor.
std::unique_ptr<Server> Start()
{
    for (;;) {
        auto server = std::make_unique<Server>(ServerName);
        if (server->Created())
            return server;
        shared->failedStarts++;
        SleepMilliseconds(2);
    }
}

class Desk {
public:
    explicit Desk(const Orders& ordersGiven) : orders(ordersGiven), server(Start())
    {
        server->SetTransferTimeOut(orders.transferLimit);
        server->SetReceiveTimeOut(1);
        server->SetReceiveTimeOutEvent(IdleEvent);
        shared->queueBytes = server->Status().msg_qbytes;
        shared->serverPID = getpid();
        shared->reign++;
    }
    void Serve()
    {
        while (ServeOne()) {
        }
        shared->left = server->Status().msg_qnum;
        server.reset();
    }

private:
    bool ServeOne()
    {
        short event = 0, response = 0, ack = 0;
        const short status = server->receive_event(event, data, response, ack);
        if (event == IdleEvent)
            return !shared->serverIsToEnd;
        if (event == 0) {
            if (status != ErrorReporter::IPC_SEND_PROCESS_GONE && status != ErrorReporter::IPC_RECV_PROCESS_GONE)
                Note("the server's receive failed with %d", status);
            if (status == ErrorReporter::SERVER_GONE || status == ErrorReporter::IPC_ERROR)
                _exit(3); // without a queue
            return true;
        }
        uint32_t client = 0, number = 0, givenUp = 0;
        if (std::sscanf(server->LastSendersProgramName(), "storm %u %u %u", &client, &number, &givenUp) != 3) {
            Note("a request came from \"%s\"", server->LastSendersProgramName());
            shared->damaged++;
            return true;
        }
        const Exchange exchange(client, number, orders.onlyLarge);
        Check(exchange, event, status, response, client, givenUp);
        Fill(words, exchange.AnswerPattern(), exchange.answerSize);
        server->send_response(exchange.event, exchange.status, words.data(), long(exchange.answerSize));
        return true;
    }

    void Check(const Exchange& exchange, short event, short status, short response, uint32_t client, uint32_t givenUp)
    {
        if (event != exchange.event || status != -1 || response != 1 ||
            !Holds(data, exchange.RequestPattern(), exchange.requestSize)) {
            Note("request %u of client %u is damaged: event %d, status %d, %u bytes of %u", exchange.number, client,
                 event, status, data.Size(), exchange.requestSize);
            shared->damaged++;
        }
        Account& account = accounts[client];
        const uint32_t last = account.last;
        if (last != 0 && exchange.number == last) {
            Note("request %u of client %u came twice", exchange.number, client);
            shared->doubled++;
        } else if (last != 0 && (exchange.number < last || exchange.number - last - 1 > givenUp - account.givenUp)) {
            Note("request %u of client %u came after %u", exchange.number, client, last);
            shared->misordered++;
        }
        account = {exchange.number, givenUp};
    }

    const Orders& orders;
    std::unique_ptr<Server> server;
    std::map<uint32_t, Account> accounts;
    Buffer data;
    std::vector<uint64_t> words;
};

} // namespace

void RunServer(const Orders& orders) { Desk(orders).Serve(); }

} // namespace storm
