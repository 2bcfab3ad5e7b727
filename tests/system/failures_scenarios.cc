#include <csignal>
#include <cstring>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

#include "Misc/BitFlags.h"
#include "Misc/CstrArray.h"
#include "Misc/FaultId.h"
#include "Misc/FileList.h"
#include "Misc/Hierarc.h"
#include "Misc/Option.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/dsa.h"
#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "Misc/lockedfile.h"
#include "Misc/misc.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "Misc/state.h"
#include "Misc/strxform.h"
#include "Misc/unixproc.h"
#include "tests/support/raw_tcp_peer.h"
#include "tests/system/failures_testing.h"

using namespace testing_support;

namespace failures_testing {

static std::string Text(const CString& s) { return static_cast<const char*>(s); }

static bool IsOneOf(const std::string& text, std::initializer_list<const char*> texts)
{
    for (const char* each : texts)
        if (text == each)
            return true;
    return false;
}

static void Strings(const std::string&)
{
    CString s("some text");
    CHILD_CHECK(IsOneOf(Text(s), {"some text", ""}));
    for (int i = 0; i < 3; i++) { // each either happens or changes nothing
        const std::string before = Text(s);
        s += "+more";
        CHILD_CHECK(Text(s) == before || Text(s) == before + "+more");
    }
    const CString shared = s;
    const std::string kept = Text(shared);
    s.Insert(0, "in");
    s.Delete(1, 2);
    s.ReplaceAll('e', "EE");
    s.toEscape(0);
    s.toLiteral();
    s.toDos();
    s.toUnix();
    CString token;
    s.ExtractToken(token, "+");
    s.toUpper();
    CHILD_CHECK(Text(shared) == kept);
    CStringBuff chunks(4);
    for (int i = 0; i < 10; i++)
        chunks += 'c';
    CHILD_CHECK(chunks.GetCString().strlen() <= 10);
    const HierarchicNum number("1.2.3");
    CHILD_CHECK(number.get_num_levels() <= 3);
}

static void Buffers(const std::string& directory)
{
    Buffer buffer;
    for (int i = 0; i < 5; i++) {
        const unsigned before = buffer.Size();
        buffer.Append("0123456789");
        CHILD_CHECK(buffer.Size() == before || buffer.Size() == before + 10);
    }
    const Buffer copy(buffer);
    CHILD_CHECK(copy.Size() == buffer.Size() || copy.Size() == 0);
    buffer.PutDataAt(100, "end", 3);
    CHILD_CHECK(std::strlen(buffer.GetCString()) <= buffer.Size());
    const std::string file = directory + "/buffer";
    const short saved = buffer.SaveBufferToFile(file.c_str(), 0);
    CHILD_CHECK(saved == 0 || saved == ErrorReporter::WRITING_TO_FILE);
    Buffer loaded;
    if (loaded.LoadBufferFromFile(file.c_str()) && saved == 0)
        CHILD_CHECK(loaded.Size() == buffer.Size());
    delete[] CString::FileNameToCharPtr(file.c_str());
}

static void Streams(const std::string&)
{
    Buffer buffer;
    {
        ZELostream out(buffer);
        out << 5 << Option("name", "value") << CString("text");
    }
    ZEListream in(buffer);
    int number = 0;
    Option option;
    CString text;
    in >> number >> option >> text;
    CHILD_CHECK(number == 5 || number == 0);
    CHILD_CHECK(IsOneOf(Text(text), {"text", ""}));
}

static void Arrays(const std::string&)
{
    OptionSafeArray options;
    for (int i = 0; i < 40; i++)
        if (Option* option = new (std::nothrow) Option("name", "value"))
            options.AddItem(option);
    const OptionSafeArray copy(options);
    CHILD_CHECK(copy.Quantity() <= options.Quantity());
    delete[] options.GetPointers();
    options.RemoveAt(0);
    options.ShrinkToFit();
}

static void FaultLists(const std::string& directory)
{
    const std::string file = directory + "/list";
    FaultIdList list(file.c_str());
    for (int i = 0; i < 5; i++)
        list.AddFaultId(FaultId(i, "node"));
    const short quantity = list.MyQuantity();
    CHILD_CHECK(quantity <= 5);
    list.Save();
    FaultIdList loaded(file.c_str());
    loaded.Load();
    CHILD_CHECK(loaded.MyQuantity() <= quantity || quantity < 0);
    list.DeleteOne(FaultId(2, "node"));
}

static void Templates(const std::string&)
{
    StringTransformer transformer("n", "a.%n.%%", nullptr);
    transformer.reset();
    for (char c; transformer.nextCharacter(c);)
        transformer.Output("name", 4);
    transformer.OutputTime(1700000000);
    CString text;
    transformer.GetOutput(text);
}

static void Files(const std::string& directory)
{
    for (const char* name : {"/a.log", "/b.log", "/c.txt"})
        Buffer(1).SaveBufferToFile((directory + name).c_str(), 0);
    FileList files(directory.c_str(), "*.log");
    files.sort();
    files.RemoveAll();
    CString access;
    GetAccessOptionForNode("nowhere", "none", access);
    CHILD_CHECK(IsOneOf(Text(access), {"none", ""}));
}

static void Locks(const std::string& directory)
{
    CString name((directory + "/resource").c_str());
    {
        LockedFileDesc lock(name, 0, 0600);
        CHILD_CHECK(!lock.Locked() || lock.fd() >= 0);
        const LockFile second(name, 0); // which it may get where this process does not seem to exist
    }
    unlink((directory + "/resource.lock").c_str()); // left where it could not be deleted
}

static void Processes(const std::string&)
{
    Buffer output;
    UnixProcess process("echo some output", output, 30);
    const int status = process.wait();
    if (status == 0)
        CHILD_CHECK(output.Size() <= 12);
}

static void States(const std::string&)
{
    StateMachine machine;
    State first("first", "First"), second("second", "Second");
    machine.AddTransition(first, second, 1);
    std::ostringstream out;
    machine.dumpOn(out);
    CHILD_CHECK(!machine.IsValidState("third"));
    struct Object : MonitoredObject {};
    Object objects[40];
    MonitoredObject::DumpState(out);
}

static void Queues(const std::string&)
{
    IPCQServer server("failures");
    if (!server.Created())
        return;
    short event, response, ack;
    Buffer data;
    const std::string text(5000, 'q');
    server.SetReceiveTimeOut(1);
    if (server.IPCSend("me", "here", "1", getpid(), "me", 1, 7, text.data(), 5000, 0, 0, 3) == 0) {
        const short status = server.receive_event(event, data, response, ack);
        CHILD_CHECK(event == 7 ? status == 3 && data.Size() == 5000 : event == 0);
    }
    IPCQClient client(1, "failures");
    std::ostringstream out;
    server.dumpOn(out);
    client.dumpOn(out);
}

static void Connections(const std::string&)
{
    IPCTli listener, end;
    RawSocket peer;
    if (!listener.Tprelisten(nullptr, "orvd") || !peer.Connect() || !listener.Tlisten() || !end.Taccept(listener))
        return;
    CHILD_CHECK(peer.Send(MakeRecord(5, 1, 0, 1800, std::string(1700, 'x'))) &&
                peer.Send(MakeRecord(5, 0, 1700, 1800, std::string(100, 'y'))));
    TliMsgStruct header = {};
    Buffer data;
    const short code = end.recv_block(&header, data);
    CHILD_CHECK(code == 0 ? data.Size() == 1800 : data.Size() == 0);
    if (code == 0)
        end.send_block(&header, "answer", 6);
}

const std::vector<Scenario> Scenarios = {
    {"Strings", Strings},       {"Buffers", Buffers},     {"Streams", Streams}, {"Arrays", Arrays},
    {"FaultLists", FaultLists}, {"Templates", Templates}, {"Files", Files},     {"Locks", Locks},
    {"Processes", Processes},   {"States", States},       {"Queues", Queues},   {"Connections", Connections},
};

static long LinesOf(const char* file)
{
    const std::string content = ReadFile(file);
    return static_cast<long>(CountOf(content, "\n"));
}

void MakeHostReady()
{
    static char program[] = "/opt/orv/bin/tester";
    static char* arguments[] = {program, nullptr};
    ProgInfo::Initialize(1, arguments, arguments + 1, "3.4");
    MakeKeyFile("failures");
    if (InSandbox())
        WriteFile("/etc/services", "orvd 4711/tcp\n");
}

Holdings HoldingsNow()
{
    return {OpenDescriptors(),
            LinesOf("/proc/sysvipc/msg") + LinesOf("/proc/sysvipc/sem") + LinesOf("/proc/sysvipc/shm")};
}

bool EndedAsStated(const ChildResult& result)
{
    if (result.exitCode == 0)
        return true;
    const bool says =
        result.err.find("Assertion failed: ") != std::string::npos || result.err.find("PANIC") != std::string::npos;
    return says && (result.signal == SIGABRT || result.signal == 0);
}

} // namespace failures_testing
