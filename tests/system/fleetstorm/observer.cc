// SPDX-License-Identifier: BSD-2-Clause
// What looks at the engine: the observer reads each change of the stream, the doorkeeper lets nobody remove what it has
// not read, and the lookout tells when the servers of the engine are in step.
#include <algorithm>
#include <charconv>
#include <map>

#include "fleet/bucket.h"
#include "fleet/engine.h"
#include "fleet/message.h"
#include "fleet/reader.h"
#include "tests/system/fleetstorm/engines.h"
#include "tests/system/fleetstorm/shared.h"

using namespace fleet;

namespace fleetstorm {

namespace {

EngineAddress Address(const Settings& settings, const char* name)
{
    EngineAddress address;
    address.servers = settings.engine;
    address.name = name;
    return address;
}

// ---- The observer ----

class Observer {
public:
    explicit Observer(const Settings& settings)
        : engine(Address(settings, "observer")), changes(engine, StreamName, "fault.change.*")
    {
    }

    void Run()
    {
        std::vector<StreamMessage> messages;
        while (!shared->othersAreToEnd) {
            if (!engine.Connect() || changes.Read(500, 100, &messages) != Outcome::Done)
                SleepMilliseconds(20);
            for (const StreamMessage& message : messages)
                Take(message);
            messages.clear();
            if (shared->pieceRound != shared->piecesKnown)
                LookAtPieces();
        }
    }

private:
    struct Attached {
        uint32_t op, size;
        std::string pieces; // their subjects
    };
    typedef std::map<int, Attached> AttachedOfHost; // by the number of the fault

    void Take(const StreamMessage& message)
    {
        static const size_t prefix = ChangeSubject("").size();
        const int host = HostIndex(NameOf(message.Subject().substr(prefix)));
        natsMsg* found = message.message.get();
        const char* journal = nullptr;
        Buffer data;
        data.Append(natsMsg_GetData(found), static_cast<unsigned>(natsMsg_GetDataLength(found)));
        std::vector<FaultChange> list;
        if (host < 0 || natsMsgHeader_Get(found, JournalHeader, &journal) != NATS_OK || !UnpackChanges(data, &list)) {
            Note("message %lu on %s is not one of a gate", static_cast<unsigned long>(message.sequence),
                 message.Subject().c_str());
            shared->strange++;
        } else {
            for (const FaultChange& change : list)
                Add(host, journal, change);
        }
        shared->read = message.sequence; // when all of it is in the log
    }

    void Add(int host, const std::string& journal, const FaultChange& change)
    {
        HostLog& log = shared->host[host];
        const uint32_t count = log.seen;
        if (count == MostSeen) {
            Note("%s has more changes than this can keep", HostName(host).c_str());
            shared->strange++;
            return;
        }
        std::vector<std::string>& names = journals[host];
        uint32_t index = 0;
        while (index < names.size() && names[index] != journal)
            index++;
        if (index == names.size())
            names.push_back(journal);
        const FaultSummary& fault = change.fault.summary;
        SeenChange& seen = log.change[count];
        seen = {change.kind,  static_cast<int32_t>(fault.hdr.myId.GetId()), StateIndex(fault.state),
                -1,           static_cast<uint32_t>(fault.attached),        index,
                change.number};
        if (change.kind == FaultChange::Raised)
            seen.op = OpOfText(fault.text);
        log.seen = count + 1;
        NoteAttachment(host, journal, seen);
    }

    void NoteAttachment(int host, const std::string& journal, const SeenChange& seen)
    {
        if (seen.kind == FaultChange::Raised && seen.attached > 0)
            attached[host][seen.fault] = {static_cast<uint32_t>(seen.op), seen.attached,
                                          PieceSubjects(HostName(host), journal, seen.number)};
        else if (seen.kind == FaultChange::Raised || seen.kind == FaultChange::Cleared)
            attached[host].erase(seen.fault);
        else if (seen.kind == FaultChange::Began)
            attached[host].clear();
    }

    // Holds the pieces in the stream against the attachments that there should be.
    void LookAtPieces()
    {
        const uint32_t round = shared->pieceRound;
        std::map<std::string, std::string> pieces;
        Reader reader(engine, StreamName, "fault.piece.>");
        std::vector<StreamMessage> messages;
        Outcome outcome = Outcome::Done;
        while ((outcome = reader.Read(10, 0, &messages)) == Outcome::Done)
            for (const StreamMessage& message : messages)
                pieces[message.Subject()].assign(natsMsg_GetData(message.message.get()),
                                                 static_cast<size_t>(natsMsg_GetDataLength(message.message.get())));
        if (outcome != Outcome::Nothing)
            return;
        for (int host = 0; host < MostHosts; host++)
            pieces.erase(SettledSubject(HostName(host))); // it means nothing
        uint32_t lost = 0;
        for (const auto& host : attached)
            for (const auto& fault : host.second) {
                const std::string prefix = fault.second.pieces.substr(0, fault.second.pieces.size() - 1);
                std::string bytes;
                for (int i = 0; pieces.count(prefix + std::to_string(i)) != 0; i++) {
                    bytes += pieces[prefix + std::to_string(i)];
                    pieces.erase(prefix + std::to_string(i));
                }
                lost += bytes != Attachment(host.first, fault.second.op, fault.second.size);
            }
        shared->piecesLost = lost;
        shared->piecesLeft = static_cast<uint32_t>(pieces.size());
        shared->piecesKnown = round;
    }

    Engine engine;
    Reader changes;
    std::map<int, std::vector<std::string>> journals; // by host, in the order in which they came
    std::map<int, AttachedOfHost> attached;           // by host
};

// ---- The doorkeeper ----

const int64_t Turn = 200; // milliseconds

std::string Field(const std::string& json, const std::string& name)
{
    const std::string start = "\"" + name + "\":";
    const size_t at = json.find(start);
    if (at == std::string::npos)
        return "";
    const size_t begin = at + start.size();
    return json.substr(begin, json.find_first_of(",}", begin) - begin);
}

const char NotYet[] = "{\"type\":\"io.nats.jetstream.api.v1.stream_msg_delete_response\",\"error\":{\"code\":503,"
                      "\"err_code\":10000,\"description\":\"the observer has not read that\"},\"success\":false}";

// The engine maps what centres send to remove messages to WithheldRemovals (see engines.cc): those of what the observer
// has read are passed on from here. No other way to remove messages is let through.
void Answer(natsConnection* connection, natsMsg* request)
{
    const std::string text(natsMsg_GetData(request), static_cast<size_t>(natsMsg_GetDataLength(request)));
    const std::string number = Field(text, "seq");
    uint64_t sequence = 0;
    std::from_chars(number.data(), number.data() + number.size(), sequence);
    if (sequence == 0 || sequence > shared->read) {
        shared->withheld++;
        natsConnection_PublishString(connection, natsMsg_GetReply(request), NotYet);
        return;
    }
    natsMsg* answer = nullptr;
    const natsStatus status = natsConnection_Request(&answer, connection, RealRemovals, natsMsg_GetData(request),
                                                     natsMsg_GetDataLength(request), LongestWait);
    if (status == NATS_OK)
        natsConnection_Publish(connection, natsMsg_GetReply(request), natsMsg_GetData(answer),
                               natsMsg_GetDataLength(answer));
    natsMsg_Destroy(answer);
}

} // namespace

void RunObserver(const Settings& settings) { Observer(settings).Run(); }

void RunDoorkeeper(const Settings& settings)
{
    Engine engine(Address(settings, "doorkeeper"));
    natsSubscription* requests = nullptr;
    while (!shared->othersAreToEnd) {
        if (!engine.Connect()) {
            SleepMilliseconds(100);
            continue;
        }
        if (requests == nullptr || !natsSubscription_IsValid(requests)) {
            natsSubscription_Destroy(requests);
            requests = nullptr;
            if (natsConnection_SubscribeSync(&requests, engine.Connection(), WithheldRemovals) != NATS_OK) {
                SleepMilliseconds(100);
                continue;
            }
        }
        natsMsg* request = nullptr;
        if (natsSubscription_NextMsg(&request, requests, Turn) == NATS_OK && natsMsg_GetReply(request) != nullptr)
            Answer(engine.Connection(), request);
        natsMsg_Destroy(request);
    }
    natsSubscription_Destroy(requests);
}

// ---- The lookout ----

// Whether all servers of a stream are there and up to date, as its leader says.
static bool IsInStep(Engine& engine, const std::string& stream, std::string* leader)
{
    jsStreamInfo* info = nullptr;
    if (js_GetStreamInfo(&info, engine.Streams(), stream.c_str(), nullptr, nullptr) != NATS_OK)
        return false;
    const jsClusterInfo* cluster = info->Cluster;
    bool isInStep = cluster != nullptr && cluster->Leader != nullptr && cluster->ReplicasLen == Engines - 1;
    *leader = isInStep ? cluster->Leader : "";
    for (int i = 0; isInStep && i < cluster->ReplicasLen; i++)
        isInStep = cluster->Replicas[i]->Current && !cluster->Replicas[i]->Offline;
    jsStreamInfo_Destroy(info);
    return isInStep;
}

// Whether each server has stored at least what any had at the look before. The leader counts what a server has taken, but
// one that has not stored that yet is no server to go on with.
static bool HaveFollowed(std::map<std::string, uint64_t>* before)
{
    std::map<std::string, uint64_t> most = *before;
    bool haveFollowed = !before->empty();
    for (int i = 0; i < Engines; i++) {
        const std::map<std::string, uint64_t> all = LastOfStreams(i);
        haveFollowed = haveFollowed && all.size() == before->size() && IsHealthy(i);
        for (const auto& stream : all) {
            haveFollowed = haveFollowed && stream.second >= (*before)[stream.first];
            most[stream.first] = std::max(most[stream.first], stream.second);
        }
    }
    *before = most;
    return haveFollowed;
}

void RunLookout(const Settings& settings)
{
    Engine engine(Address(settings, "lookout"));
    std::map<std::string, uint64_t> lasts;
    while (!shared->othersAreToEnd) {
        bool isInStep = engine.Connect();
        uint32_t leaders = 0;
        for (const std::string& stream :
             {BucketStream(FaultBucket), BucketStream(CentreBucket), std::string(StreamName)}) {
            std::string leader;
            isInStep = isInStep && IsInStep(engine, stream, &leader);
            shared->leader = isInStep ? EngineIndex(leader) : -1;
            if (isInStep && stream != BucketStream(CentreBucket))
                leaders |= 1u << static_cast<unsigned>(EngineIndex(leader));
        }
        shared->leaders = leaders;
        isInStep = HaveFollowed(&lasts) && isInStep;
        if (isInStep)
            shared->looksInStep++;
        else
            shared->looksInStep = 0;
        SleepMilliseconds(500);
    }
}

} // namespace fleetstorm
