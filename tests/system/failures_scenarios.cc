// SPDX-License-Identifier: BSD-2-Clause
#include <csignal>
#include <cstring>
#include <sstream>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

#include "Misc/BitFlags.h"
#include "Misc/CstrArray.h"
#include "Misc/FaultId.h"
#include "Misc/Hierarc.h"
#include "Misc/Option.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/dsa.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "Misc/state.h"
#include "Misc/strxform.h"
#include "tests/system/failures_testing.h"

using namespace testing_support;

namespace failures_testing {

static std::string_view Text(const CString& s) { return static_cast<const char*>(s); }

static bool IsOneOf(std::string_view text, std::initializer_list<const char*> texts)
{
    for (const char* each : texts)
        if (text == each)
            return true;
    return false;
}

static bool Strings(const std::string&)
{
    CString s("some text");
    CHILD_CHECK(IsOneOf(Text(s), {"some text", ""}));
    for (int i = 0; i < 3; i++) { // each either happens or changes nothing
        const unsigned before = s.strlen();
        s += "+more";
        CHILD_CHECK(s.strlen() == before || (s.strlen() == before + 5 && Text(s).substr(before) == "+more"));
    }
    const CString shared = s;
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
    CHILD_CHECK(std::string_view("some text+more+more+more").find(Text(shared)) != std::string_view::npos);
    CStringBuff chunks(4);
    for (int i = 0; i < 10; i++)
        chunks += 'c';
    CHILD_CHECK(chunks.GetCString().strlen() <= 10);
    const HierarchicNum number("1.2.3");
    CHILD_CHECK(number.get_num_levels() <= 3);
    return IsOneOf(Text(shared), {"some text+more+more+more"}) && IsOneOf(Text(token), {"iomEE tEExt"}) &&
           Text(chunks.GetCString()) == "cccccccccc" && number.get_num_levels() == 3;
}

static bool Buffers(const std::string& directory)
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
    const PathIn file(directory, "buffer");
    const short saved = buffer.SaveBufferToFile(file, 0);
    CHILD_CHECK(saved == 0 || saved == ErrorReporter::WRITING_TO_FILE);
    Buffer loaded;
    const bool isLoaded = loaded.LoadBufferFromFile(file) != 0;
    if (isLoaded && saved == 0)
        CHILD_CHECK(loaded.Size() == buffer.Size());
    char* content = CString::FileNameToCharPtr(file);
    const bool isWhole = content != nullptr && content[0] == '0';
    delete[] content;
    return saved == 0 && isLoaded && loaded.Size() == 103 && isWhole;
}

static bool Streams(const std::string&)
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
    return number == 5 && option.Value == "value" && text == "text";
}

static bool Arrays(const std::string&)
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
    return copy.Quantity() == 40 && options.Quantity() == 39;
}

static bool FaultLists(const std::string& directory)
{
    const PathIn file(directory, "list");
    FaultIdList list(file);
    for (int i = 0; i < 5; i++)
        list.AddFaultId(FaultId(i, "node"));
    const short quantity = list.MyQuantity();
    CHILD_CHECK(quantity <= 5);
    list.Save();
    FaultIdList loaded(file);
    loaded.Load();
    CHILD_CHECK(loaded.MyQuantity() <= quantity || quantity < 0 || list.GetErrorCode() != 0);
    list.DeleteOne(FaultId(2, "node"));
    return loaded.MyQuantity() == 5 && list.MyQuantity() == 4;
}

static bool Templates(const std::string&)
{
    StringTransformer transformer("n", "a.%n.%%", nullptr);
    transformer.reset();
    for (char c; transformer.nextCharacter(c);)
        transformer.Output("name", 4);
    transformer.OutputTime(1700000000);
    CString text;
    transformer.GetOutput(text);
    return Text(text).substr(0, 7) == "a.name.";
}

static bool States(const std::string&)
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
    return out.good() && machine.ValidTransition(first, second);
}

const std::vector<Scenario> Scenarios = {
    {"Strings", Strings},
    {"Buffers", Buffers},
    {"Streams", Streams},
    {"Arrays", Arrays},
    {"FaultLists", FaultLists},
    {"Templates", Templates},
    {"States", States},
    {"Files", Files},
    {"Nodes", Nodes},
    {"Locks", Locks},
    {"Logs", Logs},
    {"Dumps", Dumps},
    {"Segments", Segments},
    {"Processes", Processes},
    {"Children", Children},
    {"Commands", Commands},
    {"Queues", Queues},
    {"Connections", Connections},
    {"Clients", Clients},
    {"Events", Events},
#ifdef WITH_EXAMPLES
    {"Faults", Faults, true},
    {"JournaledFaults", JournaledFaults, true},
    {"BrokenFaults", BrokenFaults, true},
#endif
};

bool nothingFails = true;

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
    MakeKeyFile("orvd");
    if (!InSandbox())
        return;
    WriteFile("/etc/services", "orvd 4711/tcp\n");
    ListenForLogs();
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
