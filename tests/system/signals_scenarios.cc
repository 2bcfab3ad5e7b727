#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <fcntl.h>
#include <sys/msg.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/ProcMgr.h"
#include "Misc/detail/timedcall.h"
#include "Misc/eventmgr.h"
#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "Misc/lockedfile.h"
#include "Misc/misc.h"
#include "Misc/unixproc.h"
#include "examples/faultstore.h"
#include "svr4/signal.h"
#include "tests/support/raw_tcp_peer.h"
#include "tests/system/failures_testing.h"
#include "tests/system/signals_testing.h"

using namespace testing_support;

namespace signals_testing {

static const char Server[] = "signals";
static const short Ask = 7;
static const short Leave = 8;
static const size_t SeveralBlocks = 5000;

static std::string Bytes(const Buffer& buffer)
{
    return buffer.Size() == 0 ? ""
                              : std::string(static_cast<const char*>(static_cast<const void*>(buffer)), buffer.Size());
}

static std::string Is(bool condition, const char* what) { return std::string(condition ? "" : "not ") + what + "\n"; }

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

// ---- Processes ----

static std::string Wait(const std::string&)
{
    const char* argv[] = {"/bin/sleep", "0.01", nullptr};
    UnixProcess process(argv, UnixProcess::leave_alone_at_destruction);
    const bool isStarted = process.pid() > 1;
    return Is(isStarted, "started") + "status " + std::to_string(process.wait()) + "\n";
}

static std::string Captured(const Buffer& output)
{
    const std::string text = Bytes(output);
    const size_t banner = text.find("\n\n******** Process max wait time exceeded **********\n");
    return banner == std::string::npos ? text : "overdue\n";
}

static std::string CaptureChild(const std::string&)
{
    Buffer output;
    UnixProcess process("echo some output", output);
    const short status = process.wait();
    return "status " + std::to_string(status) + "\n" + Captured(output);
}

static std::string Limit(const std::string&)
{
    Buffer output;
    UnixProcess process("exec sleep 77.25", output, 1);
    return Captured(output);
}

static bool Runs(const std::string& command)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "cmdline", std::ios::binary);
        std::string line((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::replace(line.begin(), line.end(), '\0', ' ');
        if (line == command + " ")
            return true;
    }
    return false;
}

static const char* const Sleeper[] = {"/bin/sleep", "77.5", nullptr};

static std::string Terminate(const std::string&)
{
    const char* argv[] = {Sleeper[0], Sleeper[1], nullptr};
    std::string text;
    {
        const UnixProcess child(argv);
        text = Is(child.pid() > 1 && child.exists(), "started");
    }
    return text;
}

static std::string LeftSleeper(const std::string&)
{
    return WaitUntil([] { return !Runs("/bin/sleep 77.5"); }, 2) ? "" : "a child runs on\n";
}

static std::string Commands(const std::string& directory)
{
    svr4::signal(SIGCLD, SIG_IGN);
    const std::string file = directory + "/said";
    for (int i = 0; i < 2; i++)
        ProcMgr(("echo said >> " + file).c_str(), nullptr);
    const bool ended = WaitUntil([] {
        ProcMgr::CheckProcesses();
        return ProcMgr::processes.Quantity() == 0 && ProcMgr::commands.Quantity() == 0;
    });
    return Is(ended, "ended") + ReadFile(file);
}

// ---- Files ----

static std::string Locks(const std::string& directory)
{
    CString name((directory + "/resource").c_str());
    std::string text;
    for (int i = 0; i < 2; i++) {
        LockedFileDesc lock(name, 0, 0600);
        text += Is(lock.Locked(), "locked");
        const LockFile second(name, 0);
        text += Is(!second.Locked() && second.Error() == EAGAIN, "refused");
        lock.Cleanup();
        text += Is(access((directory + "/resource.lock").c_str(), F_OK) != 0, "released");
        WriteFile(directory + "/stale", "2l");
        rename((directory + "/stale").c_str(), (directory + "/resource.lock").c_str());
    }
    unlink((directory + "/resource.lock").c_str());
    return text;
}

static std::string LeftLock(const std::string& directory)
{
    const std::string content = ReadFile(directory + "/resource.lock");
    return access((directory + "/resource.lock").c_str(), F_OK) != 0 || content == "2l" ? "" : "a lock file\n";
}

static std::string LockWait(const std::string& directory)
{
    WriteFile(directory + "/resource.lock", std::to_string(getpid()) + "l");
    CString name((directory + "/resource").c_str());
    const LockFile lock(name, 1);
    unlink((directory + "/resource.lock").c_str());
    return Is(!lock.Locked() && lock.Error() == EAGAIN, "refused");
}

static std::string Reports(const std::string& directory)
{
    const std::string log = directory + "/log";
    const ErrorReporter reporter;
    for (int file = 0; file < 3; file++) {
        CHILD_CHECK(redirectoutput(log.c_str(), 0) == 0);
        for (int i = 0; i < 3; i++)
            reporter._ReportError(ErrorReporter::NOTICE, ErrorReporter::OTHER, "a report", "$Id: mine.cc,v 1.1", 7);
    }
    return std::to_string(CountOf(ReadFile(log), "  Description= a report\n")) + " reports, " +
           std::to_string(CountOf(ReadFile(log + ".old"), "  Description= a report\n")) + " old ones\n";
}

// To a standard error that takes them slowly, and a signal may interrupt the writing.
static std::string PipedReports(const std::string&)
{
    int ends[2];
    CHILD_CHECK(pipe2(ends, O_DIRECT) == 0 && fcntl(ends[0], F_SETPIPE_SZ, 4096) > 0); // holds one writing at a time
    const pid_t reader = StartChild([&] {
        close(ends[1]);
        std::string all;
        char block[4096];
        for (ssize_t n; (n = read(ends[0], block, sizeof block)) > 0;) {
            all.append(block, static_cast<size_t>(n));
            usleep(500);
        }
        _exit(CountOf(all, "  Description= a report\n\n"));
    });
    close(ends[0]);
    const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    const ErrorReporter reporter;
    for (int i = 0; i < 12; i++)
        reporter._ReportError(ErrorReporter::WARNING, ErrorReporter::OTHER, "a report", "$Id: mine.cc,v 1.1", 7);
    const bool good = std::cerr.good();
    dup2(saved, STDERR_FILENO);
    close(saved);
    return std::to_string(WaitForExit(reader)) + " reports\n" + Is(good, "good");
}

static FaultRecord Record(long number, const char* text)
{
    FaultRecord fault;
    fault.summary.hdr.myId = FaultId(number, "alpha");
    fault.summary.state = FirstFaultState;
    fault.summary.text = text;
    return fault;
}

static std::string Store(const std::string& directory)
{
    const std::string path = directory + "/faults";
    std::ostringstream text;
    {
        FaultStore store(path.c_str());
        text << store.Load() << store.Put(Record(1, "one")) << store.Put(Record(2, "two"))
             << store.SetState(FaultId(2, "alpha"), "moved") << store.Remove(FaultId(1, "alpha")) << "\n";
    }
    FaultStore again(path.c_str());
    text << again.Load() << "\n";
    again.dumpOn(text);
    return text.str();
}

// A store that SIGTERM has ended holds the faults of before a change or those of after it.
static std::string BrokenStore(const std::string& directory)
{
    const std::string path = directory + "/faults";
    const ChildResult child = RunInChild([&] {
        FaultStore store(path.c_str());
        CHILD_CHECK(store.Load() == 0);
        for (const auto& entry : store.All()) {
            const std::string text = static_cast<const char*>(entry.second.summary.text);
            CHILD_CHECK(text == "one" || text == "two");
        }
    });
    std::string left = child.err;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        const std::string name = entry.path().filename();
        if (name.find("broken") != std::string::npos || name.find(".new") != std::string::npos)
            left += name + "\n";
    }
    return left;
}

// ---- What makes no system calls ----

static std::string Objects(const std::string&)
{
    struct Object : MonitoredObject {
        void dumpOn(std::ostream& out) const override { out << "an object\n"; }
    };
    std::unique_ptr<Object> objects[4];
    for (auto& object : objects)
        object = std::make_unique<Object>();
    objects[1].reset();
    objects[3].reset();
    objects[0].reset();
    objects[0] = std::make_unique<Object>();
    std::ostringstream text;
    MonitoredObject::DumpState(text);
    const std::string dump = text.str();
    return std::to_string(CountOf(dump, "an object\n")) + " objects\n";
}

static std::string LocalTimes(const std::string&)
{
    std::string text;
    for (int i = 0; i < 3; i++) {
        Dates::CurrentTm();
        text += Dates::GetDateTime(1700000000L + i);
        text += "\n";
    }
    return text;
}

static std::string Alarms(const std::string&)
{
    int ends[2];
    CHILD_CHECK(pipe(ends) == 0);
    alarm(1000);
    const int64_t begin = zeloo::MillisecondsNow();
    int interruptions = 0;
    {
        const zeloo::TimedCall limit(0, 30);
        for (char c; interruptions < 3; interruptions++)
            CHILD_CHECK(read(ends[0], &c, 1) < 0 && errno == EINTR);
    }
    const bool inTime = zeloo::MillisecondsNow() - begin >= 30;
    close(ends[0]);
    close(ends[1]);
    return Is(alarm(0) > 900, "alarmed") + Is(inTime, "in time");
}

static std::string OneReport(const std::string&)
{
    const ErrorReporter reporter;
    errno = 0;
    reporter._ReportError(ErrorReporter::NOTICE, ErrorReporter::OTHER, "a report", "$Id: mine.cc,v 1.1", 7);
    return std::to_string(ErrorReporter::GetErrorCount()) + " errors\n";
}

// The scenarios of the injected failures that talk to nobody.
static std::vector<Scenario> WithPlainOnes(std::vector<Scenario> scenarios)
{
    for (const failures_testing::Scenario& each : failures_testing::Scenarios)
        for (const char* name :
             {"Strings", "Buffers", "Streams", "Arrays", "FaultLists", "Templates", "Files", "States"})
            if (std::strcmp(each.name, name) == 0)
                scenarios.push_back({name,
                                     [run = each.run](const std::string& directory) {
                                         run(directory);
                                         return std::string();
                                     },
                                     {},
                                     {},
                                     {},
                                     0,
                                     Scenario::StepsInLongForm});
    return scenarios;
}

const std::vector<Scenario>& Scenarios()
{
    static const std::vector<Scenario> scenarios = WithPlainOnes({
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
        {"Wait", Wait, {}, {"started\nstatus -1\n"}, {}},
        {"Capture", CaptureChild, {}, {"status -1\noverdue\n", "status -1\nsome output\n"}, {}},
        {"Limit", Limit, {}, {}, {}, 1, true},
        {"Terminate", Terminate, {}, {}, LeftSleeper},
        {"Commands", Commands, {}, {}, {}},
        {"Locks", Locks, {}, {}, LeftLock, 0, false, Scenario::StepsInLongForm},
        {"LockWait", LockWait, {}, {}, {}, 1, true},
        {"Reports", Reports, {}, {}, {}},
        {"PipedReports", PipedReports, {}, {}, {}, 12},
        {"Store", Store, {}, {}, BrokenStore, 12},
        {"Alarms", Alarms, {}, {}, {}, 5, false, Scenario::ShortSteps},
        {"Objects", Objects, {}, {}, {}, 0, false, Scenario::ShortSteps},
        {"LocalTimes", LocalTimes, {}, {}, {}, 0, false, Scenario::ShortSteps},
        {"OneReport", OneReport, {}, {}, {}, 0, false, Scenario::ShortSteps},
    });
    return scenarios;
}

} // namespace signals_testing
