// SPDX-License-Identifier: BSD-2-Clause
// What a program does with the public classes beside calling them, whichever library it is linked to: it derives from
// each, tells their objects apart at run time, and makes typed arrays of classes of its own.
#include <sstream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include <gtest/gtest.h>

#include "Misc/BitFlags.h"
#include "Misc/CstrArray.h"
#include "Misc/Dates.h"
#include "Misc/Error.h"
#include "Misc/FaultId.h"
#include "Misc/FileList.h"
#include "Misc/Hierarc.h"
#include "Misc/Option.h"
#include "Misc/ProcMgr.h"
#include "Misc/SafeArray.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/dsa.h"
#include "Misc/eventmgr.h"
#include "Misc/fileinfo.h"
#include "Misc/ipcobject.h"
#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "Misc/lockedfile.h"
#include "Misc/mobject.h"
#include "Misc/nfstream.h"
#include "Misc/proginfo.h"
#include "Misc/state.h"
#include "Misc/strxform.h"
#include "Misc/ularray.h"
#include "Misc/unixproc.h"
#include "tests/support/testing.h"

using namespace testing_support;

struct Plant {
    explicit Plant(int height_p) : height(height_p) {}
    int height;
};

template <>
const char* SafeArray<Plant>::ElementName()
{
    return "Plant";
}

namespace {

template <class Base>
struct Own : Base {
    using Base::Base;
};

/// A class derived from `Base`, made with `arguments`, is told from it through a pointer to `Base`.
template <class Base, class... Arguments>
void ExpectDerived(Arguments&&... arguments)
{
    Own<Base> own(std::forward<Arguments>(arguments)...);
    Base* base = &own;
    if constexpr (std::is_polymorphic_v<Base>) {
        EXPECT_EQ(dynamic_cast<Own<Base>*>(base), &own);
        EXPECT_TRUE(typeid(*base) == typeid(Own<Base>));
    }
}

struct OwnArray : SafeArrayBase {
    OwnArray() : SafeArrayBase(0) {}
    void DeleteItem(void*) override {}
};

struct OwnQueueEnd : IPCQBase {
    OwnQueueEnd() : IPCQBase(nullptr) {}
    short is_a_server() override { return 0; }
};

struct OwnServer : EventManager {
    OwnServer() : EventManager("without-key-file", nullptr) {}
    const char* Event_to_Name(short) override { return ""; }
    short Name_to_Event(const char*) override { return 0; }
    short StatusEventCode() override { return 1; }
    short LastEventCode() override { return 1; }
    short IsNullEvent(short) override { return 0; }
    short IsExitEvent(short) override { return 0; }
    short HandleEvent(short) override { return 0; }
};

TEST(Derive, ValuesAndStreams)
{
    CString text("text");
    Buffer buffer;
    std::stringstream stream;
    ExpectDerived<CStringRep>("text");
    ExpectDerived<CString>("text");
    ExpectDerived<CStringIter>(text, '\n');
    ExpectDerived<CStringBuff>(8);
    ExpectDerived<Buffer>(8u);
    ExpectDerived<ulongArray>(8);
    ExpectDerived<BitFlags>();
    ExpectDerived<HierarchicNum>("1.2");
    ExpectDerived<EnvironmentValue>("a", "B");
    ExpectDerived<StringTransformer>("a", "%a", "B");
    ExpectDerived<ZELostream>(buffer);
    ExpectDerived<ZEListream>(buffer);
    ExpectDerived<ByteAccess>();
    ExpectDerived<onfstream>(stream);
    ExpectDerived<infstream>(stream);
    ExpectDerived<Option>("name", "value");
    ExpectDerived<Dates>();
    ExpectDerived<FileInfo>();
    ExpectDerived<FileList>("/no/such/directory", "");
    ExpectDerived<DSA>();
    ExpectDerived<ProgInfo>();
    ExpectDerived<FaultId>(1L, "node");
    ExpectDerived<FaultHdr>();
    ExpectDerived<Fault>();
    ExpectDerived<FaultIdList>("");
    State state("s", "State");
    ExpectDerived<State>("s", "State");
    ExpectDerived<Transition>(state, state, static_cast<short>(1));
    ExpectDerived<StateMachine>();
}

TEST(Derive, Arrays)
{
    OwnArray own;
    SafeArrayBase* base = &own;
    EXPECT_EQ(dynamic_cast<OwnArray*>(base), &own);
    ExpectDerived<SafeArrayIterBase>(own);

    ExpectDerived<CStringSafeArray>();
    ExpectDerived<OptionSafeArray>();
    ExpectDerived<FaultIdSafeArray>();
    ExpectDerived<CmdLineSafeArray>();
    ExpectDerived<ProcInfoSafeArray>();
    ExpectDerived<IPCQMsgSafeArray>();
    ExpectDerived<InternalQMessageSafeArray>();
    ExpectDerived<MonitoredObjectSafeArray>();
    ExpectDerived<StateSafeArray>();
    ExpectDerived<TransitionSafeArray>();
    ExpectDerived<UnixProcessSafeArray>();

    ExpectDerived<CStringSafeArrayIter>(CStringSafeArray());
    ExpectDerived<FaultIdSafeArrayIter>(FaultIdSafeArray());
    ExpectDerived<MonitoredObjectSafeArrayIter>(MonitoredObjectSafeArray());
    ExpectDerived<StateSafeArrayIter>(StateSafeArray());
    ExpectDerived<TransitionSafeArrayIter>(TransitionSafeArray());
    ExpectDerived<UnixProcessSafeArrayIter>(UnixProcessSafeArray());
}

TEST(Derive, MonitoredObjectsAndProcesses)
{
    const TemporaryDirectory directory;
    CString name(directory.File("resource").c_str());
    const UnixProcess::ctor_dtor_flag waited = UnixProcess::wait_at_construction;
    ExpectDerived<ErrorReporter>();
    ExpectDerived<MonitoredObject>();
    ExpectDerived<UnixProcess>("exit 0", waited);
    ExpectDerived<LockFile>(name);
    ExpectDerived<LockedFileDesc>(name, 0, 0600);
    ExpectDerived<CmdLine>();
    ExpectDerived<ProcInfo>();
    ExpectDerived<ProcMgrQueues>();
}

TEST(Derive, EndsOfQueuesAndConnections)
{
    OwnQueueEnd end;
    IPCQBase* base = &end;
    EXPECT_EQ(dynamic_cast<OwnQueueEnd*>(base), &end);
    EXPECT_EQ(dynamic_cast<IPCQClient*>(base), nullptr);
    const std::string reports = CaptureStderr([] {
        OwnServer server;
        EventManager* manager = &server;
        EXPECT_EQ(dynamic_cast<OwnServer*>(manager), &server);
        ExpectDerived<IPCQServer>("without-key-file");
    });
    EXPECT_NE(reports, "");
    const char* const none = nullptr;
    const short object = 0;
    ExpectDerived<IPCQClient>(object, none);
    ExpectDerived<IPCTli>();
    ExpectDerived<IPCTliClient>(object, none, none, object);
    ExpectDerived<IPCClient>(object, none);
    ExpectDerived<ReconnectClient>(object, none);
    ExpectDerived<IPCQMessage>();
    ExpectDerived<IPCQMsg>();
    ExpectDerived<InternalQMessage>();
    ExpectDerived<TliMsgStruct>();
}

TEST(Derive, TypesOfTheLibrarysOwnObjects)
{
    SafeArrayBase* queue = &ProcMgr::commands;
    EXPECT_TRUE(typeid(*queue) == typeid(CmdLineSafeArray));
    EXPECT_EQ(dynamic_cast<SafeArray<CmdLine>*>(queue), &ProcMgr::commands);
    EXPECT_EQ(dynamic_cast<SafeArray<ProcInfo>*>(queue), nullptr);
    try {
        throw Own<CString>("thrown");
    } catch (const CString& text) {
        EXPECT_TRUE(text == "thrown");
    }
}

TEST(Derive, ArraysOfTheProgramsClasses)
{
    SafeArray<Plant> plants;
    plants.AddItem(new Plant(3));
    plants.AddItem(new Plant(5));
    SafeArray<Plant> copy(plants);
    SafeArrayBase* base = &copy;
    EXPECT_EQ(dynamic_cast<SafeArray<Plant>*>(base), &copy);
    int sum = 0;
    for (SafeArrayIter<Plant> iter(copy); iter() != nullptr; ++iter)
        sum += iter()->height;
    EXPECT_EQ(sum, 8);
    std::ostringstream text;
    copy.print(text);
    EXPECT_NE(text.str().find("Plant"), std::string::npos) << text.str();
}

} // namespace
