// SPDX-License-Identifier: BSD-2-Clause
#include <algorithm>
#include <cstring>
#include <sstream>

#include <unistd.h>

#include "Misc/eventmgr.h"
#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "tests/support/raw_tcp_peer.h"
#include "tests/system/signals_testing.h"

using namespace testing_support;

namespace signals_testing {

static const char Server[] = "signals";
static const short Ask = 7;
static const short Leave = 8;
static const size_t SeveralBlocks = 5000;

// ---- Queues ----

static std::string ServeOne(IPCQServer& server)
{
    short event, response, ack;
    Buffer data;
    const short status = server.receive_event(event, data, response, ack);
    std::ostringstream text;
    text << "event " << event << " status " << status << " bytes " << data.Size() << "\n";
    const short sent = server.send_response(event, 3, data, static_cast<long>(data.Size()));
    text << "answered " << sent << "\n";
    return text.str();
}

static std::string QueueServer(const std::string&)
{
    IPCQServer server(Server);
    return Is(server.Created(), "created") + ServeOne(server);
}

// Asks a server, if there is one, again and again.
static void AskForEver()
{
    const std::string data(SeveralBlocks, 'q');
    for (;; usleep(500)) {
        IPCQClient client(1, Server);
        if (!client.Connected() ||
            client.send_event_with_response(Ask, data.data(), static_cast<long>(data.size())) != 0)
            continue;
        short event;
        Buffer answer;
        client.receive_response(event, answer);
    }
}

static bool HasServer()
{
    return WaitUntil([] {
        long pid;
        return connect_to_queue(Server, 0, &pid, -1) >= 0;
    });
}

static std::string QueueClient(const std::string&)
{
    CHILD_CHECK(HasServer());
    IPCQClient client(1, Server);
    const std::string data(SeveralBlocks, 'q');
    std::ostringstream text;
    text << Is(client.Connected(), "connected");
    for (const long length : {10L, static_cast<long>(SeveralBlocks)}) {
        text << "sent " << client.send_event_with_response(Ask, data.data(), length) << "\n";
        short event;
        Buffer answer;
        const short status = client.receive_response(event, answer);
        text << "event " << event << " status " << status << " bytes " << answer.Size() << "\n";
    }
    return text.str();
}

// Answers that wait on the queue while the client is at other things.
static std::string UnreadAnswers(const std::string&)
{
    CHILD_CHECK(HasServer());
    IPCQClient client(1, Server);
    std::string text;
    for (int i = 0; i < 3; i++)
        text += "sent " + std::to_string(client.send_event_with_response(Ask, "question", 8)) + "\n";
    CString pieces;
    for (int i = 0; i < 20; i++)
        pieces += CString("a piece of text ");
    text += "length " + std::to_string(pieces.strlen()) + "\n";
    for (int i = 0; i < 3; i++) {
        short event;
        Buffer answer;
        const short status = client.receive_response(event, answer);
        text += "status " + std::to_string(status) + " " + Bytes(answer) + "\n";
    }
    return text;
}

static void ServeForEver()
{
    IPCQServer server(Server);
    for (;;) {
        short event, response, ack;
        Buffer data;
        server.receive_event(event, data, response, ack);
        if (response)
            server.send_response(event, 3, data, static_cast<long>(data.Size()));
    }
}

static std::string QueueStart(const std::string&)
{
    std::string text;
    for (int i = 0; i < 2; i++) {
        IPCQServer server(Server);
        const IPCQClient client(1, Server);
        long pid = 0;
        text += Is(server.Created() && client.Connected(), "connected");
        text += Is(connect_to_queue(Server, 0, &pid, -1) >= 0 && pid == getpid(), "found");
        server.Shutdown();
        text += Is(!server.Created(), "shut down");
    }
    return text;
}

static std::string OwnEvents(const std::string&)
{
    IPCQServer server(Server);
    const std::string data(100, 'q');
    std::string text;
    for (int i = 0; i < 3; i++)
        text += Is(server.IPCSend("me", "here", "1", getpid(), "me", 1, Ask, data.data(), 100, 0, 0, 3) == 0, "sent");
    for (int i = 0; i < 3; i++) {
        short event, response, ack;
        Buffer received;
        const short status = server.receive_event(event, received, response, ack);
        text += Is(event == Ask && status == 3 && Bytes(received) == data, "received");
    }
    return text;
}

// Mail that is saved while room is waited for.
static std::string SavedMail(const std::string&)
{
    const int queue = create_queue(Server, getpid());
    IPCQMsgSafeArray saved;
    std::string text;
    for (int i = 0; i < 3; i++) {
        IPCQMsg message;
        std::memset(static_cast<void*>(&message.msg), 0, sizeof message.msg);
        message.msg.senders_pid = getpid();
        message.msg.event = static_cast<short>(i);
        text += Is(ipc_send(queue, 5, &message.msg, 0, 0) == 0, "sent");
    }
    DrainIPCMessages(queue, 5, saved);
    for (unsigned i = 0; i < saved.Quantity(); i++)
        text += "event " + std::to_string(saved[static_cast<int>(i)]->msg.event) + "\n";
    delete_q_and_semaphore(queue);
    return text;
}

static std::string LeftQueue(const std::string&)
{
    long pid = 0;
    const int queue = connect_to_queue(Server, 0, &pid, -1);
    if (queue >= 0)
        delete_q_and_semaphore(queue); // create_queue knows no object that would remove it
    return "";
}

// More than a queue holds, which the partner takes off it.
static const long Channel = 2000000000;

static std::string FullQueue(const std::string&)
{
    CHILD_CHECK(HasServer());
    long pid = 0;
    const int queue = connect_to_queue(Server, 0, &pid, -1);
    short worst = 0;
    for (int i = 0; i < 25; i++) {
        IPCQMessage message;
        std::memset(static_cast<void*>(&message), 0, sizeof message);
        message.senders_pid = getpid();
        message.msg_data_len = 1700;
        worst = std::max(worst, ipc_send(queue, Channel, &message, pid, 0));
    }
    return "sent " + std::to_string(worst) + "\n";
}

static void TakeForEver()
{
    const IPCQServer server(Server);
    long pid;
    const int queue = connect_to_queue(Server, 0, &pid, -1);
    for (IPCQMessage message;; usleep(300))
        ipc_recv(queue, Channel, &message, 0, 0);
}

static std::string ReceiveLimit(const std::string&)
{
    IPCQServer server(Server);
    server.SetReceiveTimeOut(1);
    server.SetReceiveTimeOutEvent(99);
    short event, response, ack;
    Buffer data;
    const short status = server.receive_event(event, data, response, ack);
    return "event " + std::to_string(event) + " status " + std::to_string(status) + "\n";
}

// ---- Events ----

class Manager : public EventManager {
public:
    Manager() : EventManager(Server, nullptr) {}
    bool IsServing() { return InBasket().Created() != 0; }
    int handled = 0;

private:
    const char* Event_to_Name(short) override { return "an event"; }
    short Name_to_Event(const char*) override { return 0; }
    short StatusEventCode() override { return 1; }
    short LastEventCode() override { return Leave; }
    short IsNullEvent(short event) override { return event == 0; }
    short IsExitEvent(short event) override { return event == Leave; }
    short Handle_EXIT_event(short& exitnow) override
    {
        InBasket().send_response(CurrentEvent, 0, nullptr, 0);
        return EventManager::Handle_EXIT_event(exitnow);
    }
    short HandleEvent(short) override
    {
        handled += CurrentEventData.Size() == SeveralBlocks;
        InBasket().send_response(CurrentEvent, 3, CurrentEventData, static_cast<long>(CurrentEventData.Size()));
        return 3;
    }
};

static std::string EventLoop(const std::string&)
{
    Manager manager;
    std::string text = Is(manager.IsServing(), "serving");
    const short status = manager.main();
    return text + "status " + std::to_string(status) + "\n" + Is(manager.handled >= 1, "handled");
}

static void AskAndEndForEver()
{
    const std::string data(SeveralBlocks, 'q');
    for (;; usleep(500)) {
        IPCQClient client(1, Server);
        for (const short event : {Ask, Leave}) {
            const long length = event == Ask ? static_cast<long>(data.size()) : 0;
            if (!client.Connected() || client.send_event_with_response(event, data.data(), length) != 0)
                break;
            short answered;
            Buffer answer;
            if (client.receive_response(answered, answer) == ErrorReporter::SERVER_GONE)
                break;
        }
    }
}

// ---- Connections ----

static std::string Exchange(IPCTli& end, int bytes)
{
    TliMsgStruct header = {};
    Buffer data;
    const short code = end.recv_block(&header, data);
    if (code == ErrorReporter::IPC_RECV_TIME_OUT)
        return "interrupted\n";
    return "received " + std::to_string(code) + " bytes " + std::to_string(data.Size()) + "\n" +
           Is(static_cast<int>(data.Size()) == bytes, "all");
}

static std::string ConnectionServer(const std::string&)
{
    IPCTli listener, end;
    if (!listener.Tprelisten(nullptr, "orvd"))
        return "not listening\n";
    if (!listener.Tlisten())
        return "interrupted\n";
    if (!end.Taccept(listener))
        return "not accepted\n";
    const std::string text = Exchange(end, 1800);
    TliMsgStruct header = {};
    return text == "interrupted\n" ? text
                                   : text + "answered " + std::to_string(end.send_block(&header, "answer", 6)) + "\n";
}

static void ConnectForEver()
{
    for (;; usleep(500)) {
        RawSocket peer;
        if (!peer.Connect() || !peer.Send(MakeRecord(5, 1, 0, 1800, std::string(1700, 'x'))))
            continue;
        usleep(500); // so that the rest has to be waited for
        peer.Send(MakeRecord(5, 0, 1700, 1800, std::string(100, 'y')));
        peer.AtEnd();
    }
}

static std::string ConnectionClient(const std::string&)
{
    IPCTli end;
    if (!end.Topen("127.0.0.1", "orvd"))
        return "interrupted\n";
    const std::string data(SeveralBlocks, 'q');
    TliMsgStruct header = {};
    const short code = end.send_block(&header, data.data(), static_cast<long>(data.size()));
    const std::string text = Exchange(end, 6);
    return text == "interrupted\n" ? text : "sent " + std::to_string(code) + "\n" + text;
}

static void AcceptForEver()
{
    RawSocket listener;
    CHILD_CHECK(listener.Listen());
    for (;;) {
        const RawSocket peer(listener.Accept());
        char records[3 * 1904];
        if (peer.Receive(records, sizeof records)) {
            usleep(500);
            peer.Send(MakeRecord(5, 0, 0, 6, "answer"));
        }
    }
}

std::vector<Scenario> MessageScenarios()
{
    return {
        {"QueueServer", QueueServer, AskForEver, {}, {}},
        {"QueueClient", QueueClient, ServeForEver, {}, {}},
        {"UnreadAnswers", UnreadAnswers, ServeForEver, {}, {}, 0, false, Scenario::StepsInLongForm},
        {"QueueStart", QueueStart, {}, {}, {}, 0, false, Scenario::StepsInLongForm},
        {"OwnEvents", OwnEvents, {}, {}, {}, 0, false, Scenario::StepsInLongForm},
        {"SavedMail", SavedMail, {}, {}, LeftQueue, 0, false, Scenario::StepsInLongForm},
        {"FullQueue", FullQueue, TakeForEver, {}, {}},
        {"ReceiveLimit", ReceiveLimit, {}, {}, {}, 1, true},
        {"EventLoop", EventLoop, AskAndEndForEver, {}, {}},
        {"ConnectionServer", ConnectionServer, ConnectForEver, {"interrupted\n"}, {}},
        {"ConnectionClient", ConnectionClient, AcceptForEver, {"interrupted\n"}, {}},
    };
}

} // namespace signals_testing
