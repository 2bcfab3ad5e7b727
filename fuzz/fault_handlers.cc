// SPDX-License-Identifier: BSD-2-Clause
// The handlers of the fault daemon with any data of events, on a real store: what it says is kept is there again at the
// next start.
#include <sstream>

#include <sys/stat.h>

#include "Misc/proginfo.h"
#include "examples/faultserver.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

namespace {

const char Directory[] = "/var/orv/data/faults";

// The server without its loop: events are handed to its handlers.
class Handlers : public FaultServer {
public:
    explicit Handlers(FaultStore& store) : FaultServer(store, 1, "none") {}
    short Handle(short event, const Buffer& data)
    {
        CurrentEvent = event;
        CurrentEventData = data;
        CurrentEventResponseRqd = 0;
        return HandleEvent(event);
    }
};

template <class Object>
Buffer Packed(const Object& object)
{
    Buffer data;
    Pack(object, data);
    return data;
}

FaultId AnyId(Input& in)
{
    static const char* const nodes[] = {"alpha", "beta", "g\xE4mma", "a/b", "", "%41", ".."};
    const char* node = nodes[in.Below(7)];
    FaultId id;
    id = (std::string(node) + ":" + std::to_string(in.Below(16) == 0 ? in.Number<int>() : in.Below(4))).c_str();
    return id;
}

FaultRecord AnyFault(Input& in)
{
    FaultRecord fault;
    fault.summary.hdr.myId = AnyId(in);
    fault.summary.raised = in.Number<long>();
    fault.summary.state = in.Text().c_str();
    fault.summary.text = in.Text().c_str();
    for (unsigned n = in.Below(4); n > 0; n--)
        fault.summary.options.AddItem(new Option(in.Text().c_str(), in.Text().c_str()));
    const std::string attachment = in.Run();
    fault.attachment.Append(attachment.data(), static_cast<unsigned>(attachment.size()));
    fault.summary.attached = in.Below(16) == 0 ? in.Number<int>() : static_cast<int>(attachment.size());
    return fault;
}

FaultMove AnyMove(Input& in)
{
    static const char* const states[] = {"new", "working", "waiting_escalation", "escalated", "solved", "closed",
                                         "",    "unknown"};
    FaultMove move;
    move.id = AnyId(in);
    move.state = states[in.Below(8)];
    return move;
}

// The data of an event: the object that it takes, or any bytes.
Buffer AnyData(Input& in, short event)
{
    Buffer data;
    if (in.Below(4) != 0)
        switch (event) {
        case RaiseEvent: data = Packed(AnyFault(in)); break;
        case FetchEvent:
        case ClearEvent:
        case MovesEvent: data = Packed(AnyId(in)); break;
        case MoveEvent: data = Packed(AnyMove(in)); break;
        }
    if (data.Size() == 0 || in.Below(8) == 0) {
        const std::string bytes = in.Run();
        data.Append(bytes.data(), static_cast<unsigned>(bytes.size()));
    }
    return data;
}

// Commands that would run are not what this is about.
bool WouldRun(const FaultStore& store, short event, Buffer data)
{
    FaultCommand request;
    return (event == RunEvent || event == StartEvent) && Unpack(data, request) && store.Find(request.id) != nullptr;
}

void CheckKept(const FaultStore& store)
{
    FaultStore next(Directory);
    FUZZ_CHECK(next.Load() == ErrorReporter::NO_ERRORS);
    FUZZ_CHECK(next.All().size() == store.All().size());
    for (const auto& entry : store.All()) {
        const FaultRecord* kept = next.Find(entry.first);
        FUZZ_CHECK(kept != nullptr);
        const Buffer a = Packed(entry.second), b = Packed(*kept);
        FUZZ_CHECK(a.Size() == b.Size() &&
                   std::memcmp(static_cast<const void*>(a), static_cast<const void*>(b), a.Size()) == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzing::NameProgram();
    fuzzing::WriteFile("/opt/orv/bin/orvd", "");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static FaultStore& store = *new FaultStore(Directory);
    static const bool loaded = store.Load() == ErrorReporter::NO_ERRORS;
    static Handlers server(store);
    FUZZ_CHECK(loaded && server.InBasket().Created());
    Input in(data, size);
    for (int i = 0; i < 20 && !in.IsAtEnd(); i++) {
        const short event = in.Below(16) == 0 ? in.Number<short>() : static_cast<short>(in.Below(FaultEvents));
        const Buffer eventData = AnyData(in, event);
        if (!server.IsExitEvent(event) && !WouldRun(store, event, eventData))
            server.Handle(event, eventData);
    }
    if ((size & 7) == 0)
        CheckKept(store);
    while (!store.All().empty())
        FUZZ_CHECK(server.Handle(ClearEvent, Packed(FaultId(store.All().begin()->first))) == ErrorReporter::NO_ERRORS);
    return 0;
}
