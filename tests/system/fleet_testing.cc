// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/fleet_testing.h"

#include <filesystem>
#include <memory>
#include <random>
#include <sstream>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ipcobject.h"
#include "Misc/ipcq.h"
#include "fleet/message.h"

namespace fleet_testing {

using faultjournal_testing::Faults;
using faultjournal_testing::Packed;
using faultjournal_testing::Replay;

static const int FirstPort = 42220, FirstClusterPort = 42320;

std::string EngineProgram()
{
    const char* path = getenv("PATH");
    std::istringstream directories(std::string(path != nullptr ? path : "") + ":/usr/sbin:/usr/local/bin");
    for (std::string directory; std::getline(directories, directory, ':');)
        if (access((directory + "/nats-server").c_str(), X_OK) == 0)
            return directory + "/nats-server";
    return "";
}

EngineServers::EngineServers(int count) : processes(static_cast<std::size_t>(count), 0) {}

EngineServers::~EngineServers()
{
    for (std::size_t i = 0; i < processes.size(); i++)
        End(static_cast<int>(i));
}

std::string EngineServers::Configuration(int index) const
{
    const std::string name = "engine-" + std::to_string(index);
    std::string text = "server_name: " + name + "\nlisten: \"127.0.0.1:" + std::to_string(FirstPort + index) +
                       "\"\njetstream { store_dir: \"" + directory.File(name) + "\", max_file_store: 1GB }\n" + extra;
    if (processes.size() == 1)
        return text;
    text += "cluster { name: fleet, listen: \"127.0.0.1:" + std::to_string(FirstClusterPort + index) + "\", routes: [";
    for (int other = 0; other < static_cast<int>(processes.size()); other++)
        text += (other == 0 ? "\"nats://127.0.0.1:" : ", \"nats://127.0.0.1:") +
                std::to_string(FirstClusterPort + other) + "\"";
    return text + " ] }\n";
}

std::string EngineServers::File(int index, const char* suffix) const
{
    return directory.File("engine-" + std::to_string(index) + suffix);
}

void EngineServers::Start(int index)
{
    WriteFile(File(index, ".conf"), Configuration(index));
    processes[static_cast<std::size_t>(index)] =
        StartProgram(EngineProgram(), {"-c", File(index, ".conf"), "-l", File(index, ".log")}, File(index, ".out"));
}

bool EngineServers::Reload(int index)
{
    const int earlier = CountOf(Log(index), "Reloaded server configuration");
    WriteFile(File(index, ".conf"), Configuration(index));
    kill(Process(index), SIGHUP);
    return WaitUntil([&] { return CountOf(Log(index), "Reloaded server configuration") > earlier; });
}

void EngineServers::StartAll()
{
    for (std::size_t i = 0; i < processes.size(); i++)
        Start(static_cast<int>(i));
}

void EngineServers::End(int index, int signal)
{
    pid_t& process = processes[static_cast<std::size_t>(index)];
    if (process > 0)
        EndChild(process, signal);
    process = 0;
}

std::string EngineServers::Log(int index) const
{
    return ReadFile(File(index, ".out")) + ReadFile(File(index, ".log"));
}

std::string EngineServers::Urls() const
{
    std::string urls;
    for (std::size_t i = 0; i < processes.size(); i++)
        urls += (i == 0 ? "nats://127.0.0.1:" : ",nats://127.0.0.1:") + std::to_string(FirstPort + static_cast<int>(i));
    return urls;
}

bool EngineServers::SetUp(const std::vector<std::string>& settings) const
{
    std::vector<std::string> arguments = {"--engine", Urls(), "setup"};
    arguments.insert(arguments.end(), settings.begin(), settings.end());
    return WaitUntil([&] { return RunProgram(Faultfleet, arguments).exitCode == 0; }, 60);
}

// What the engine gives is destroyed by a function of its own.
template <class Object>
static std::unique_ptr<Object, void (*)(Object*)> Owned(Object* object, void (*destroy)(Object*))
{
    return std::unique_ptr<Object, void (*)(Object*)>(object, destroy);
}

// A connection for one look at the stream.
class Look {
public:
    Look(const std::string& urls, const std::string& credentials)
    {
        natsOptions* options = nullptr;
        natsOptions_Create(&options);
        std::istringstream text(urls);
        std::vector<std::string> list;
        for (std::string url; std::getline(text, url, ',');)
            list.push_back(url);
        std::vector<const char*> servers;
        servers.reserve(list.size());
        for (const std::string& url : list)
            servers.push_back(url.c_str());
        natsOptions_SetServers(options, servers.data(), static_cast<int>(servers.size()));
        if (!credentials.empty()) {
            natsOptions_SetSecure(options, true);
            natsOptions_LoadCATrustedCertificates(options, (credentials + "/ca.crt").c_str());
            natsOptions_LoadCertificatesChain(options, (credentials + "/client.crt").c_str(),
                                              (credentials + "/client.key").c_str());
        }
        if (natsConnection_Connect(&connection, options) == NATS_OK)
            natsConnection_JetStream(&stream, connection, nullptr);
        natsOptions_Destroy(options);
    }
    ~Look()
    {
        jsCtx_Destroy(stream);
        natsConnection_Destroy(connection);
    }
    Look(const Look&) = delete;
    Look& operator=(const Look&) = delete;

    // The newest number, and the server that leads, if all are in step with it.
    bool Info(uint64_t* last, std::string* leader, const std::string& name = fleet::StreamName)
    {
        jsStreamInfo* found = nullptr;
        if (stream == nullptr || js_GetStreamInfo(&found, stream, name.c_str(), nullptr, nullptr) != NATS_OK)
            return false;
        *last = found->State.LastSeq;
        const jsClusterInfo* cluster = found->Cluster;
        *leader = cluster != nullptr && cluster->Leader != nullptr ? cluster->Leader : "";
        for (int i = 0; cluster != nullptr && i < cluster->ReplicasLen; i++)
            if (!cluster->Replicas[i]->Current || cluster->Replicas[i]->Offline || cluster->Replicas[i]->Lag > 0)
                leader->clear();
        jsStreamInfo_Destroy(found);
        return true;
    }
    jsCtx* stream = nullptr;

private:
    natsConnection* connection = nullptr;
};

int EngineServers::Leader(const std::string& stream) const
{
    Look look(Urls(), "");
    uint64_t last = 0;
    std::string leader;
    if (!look.Info(&last, &leader, stream) || leader.find("engine-") != 0)
        return -1;
    return std::stoi(leader.substr(7));
}

Credentials::Credentials()
{
    Make({"authority"});
    Make({"engine", "127.0.0.1"});
    Make({"operator", "main"});
}

void Credentials::Make(const std::vector<std::string>& arguments) const
{
    std::vector<std::string> all = {Place()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const ChildResult made = RunProgram(CREDENTIALS, all);
    EXPECT_EQ(made.exitCode, 0) << made.err;
}

// Without what EngineServers sets itself. An included file's name counts from the directory of the configuration.
std::string Credentials::Configuration() const
{
    const std::string place = Place("engine-127.0.0.1");
    std::string text = ReadFile(place + "/engine.conf");
    text = Replaced(text.substr(text.find("tls {")), "/etc/faultengine", place);
    return Replaced(text, "include accounts.conf", "include \"../" + Place("accounts.conf").substr(5) + "\"");
}

static std::string Header(natsMsg* message, const char* name)
{
    const char* value = nullptr;
    return natsMsgHeader_Get(message, name, &value) == NATS_OK ? value : "";
}

std::vector<Stored> ReadStream(const std::string& urls, const std::string& credentials)
{
    std::vector<Stored> all;
    Look look(urls, credentials);
    uint64_t last = 0;
    std::string leader;
    EXPECT_TRUE(WaitUntil([&] { return look.Info(&last, &leader); }));
    for (uint64_t sequence = 1; sequence <= last; sequence++) {
        natsMsg* found = nullptr;
        const natsStatus status = js_GetMsg(&found, look.stream, fleet::StreamName, sequence, nullptr, nullptr);
        if (status == NATS_NOT_FOUND)
            continue;
        EXPECT_EQ(status, NATS_OK) << sequence;
        if (status != NATS_OK)
            return all;
        const auto message = Owned(found, natsMsg_Destroy);
        Stored stored;
        stored.subject = natsMsg_GetSubject(found);
        if (stored.subject.find(".settled") != std::string::npos)
            continue; // it means nothing
        stored.journal = Header(found, "Fault-Journal");
        stored.number = std::atol(Header(found, "Fault-Change").c_str());
        stored.data.assign(natsMsg_GetData(found), static_cast<std::size_t>(natsMsg_GetDataLength(found)));
        all.push_back(stored);
    }
    return all;
}

std::string PackedChange(const FaultChange& change)
{
    Buffer data;
    Pack(change, data);
    return std::string(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
}

// Puts an attachment back into its change.
static void Attach(const std::string& node, const std::string& journal, std::map<std::string, std::string>& pieces,
                   FaultChange& change)
{
    const auto wanted = static_cast<std::size_t>(change.fault.summary.attached);
    std::string attachment;
    for (long index = 0; attachment.size() < wanted; index++) {
        const std::string subject = fleet::PieceSubject(node, journal, change.number, index);
        ASSERT_EQ(pieces.count(subject), 1u) << subject;
        attachment += pieces[subject];
        pieces.erase(subject);
    }
    EXPECT_EQ(attachment.size(), wanted);
    change.fault.attachment.Append(attachment.data(), static_cast<unsigned>(attachment.size()));
}

History ReadHistory(const std::string& urls, const std::string& node, const std::string& credentials)
{
    History history;
    std::map<std::string, std::string> pieces;
    std::map<std::string, int> seen;
    for (const Stored& stored : ReadStream(urls, credentials)) {
        if (stored.subject != fleet::ChangeSubject(node)) {
            const auto known = pieces.emplace(stored.subject, stored.data).first;
            EXPECT_TRUE(known->second == stored.data) << stored.subject << " is another than the one before";
            continue; // a gate that was killed sends it again
        }
        if (history.journals.empty() || history.journals.back() != stored.journal) {
            EXPECT_EQ(seen[stored.journal]++, 0) << "a journal comes again";
            history.journals.push_back(stored.journal);
            history.replay = Replay();
        }
        Buffer data;
        data.Append(stored.data.data(), static_cast<unsigned>(stored.data.size()));
        std::vector<FaultChange> changes;
        EXPECT_TRUE(fleet::UnpackChanges(data, &changes));
        EXPECT_FALSE(changes.empty());
        for (FaultChange& change : changes) {
            if (change.kind == FaultChange::Raised)
                Attach(node, stored.journal, pieces, change);
            EXPECT_TRUE(history.replay.last != 0 || change.kind == FaultChange::Began) << change.number;
            const long earlier = history.replay.last;
            EXPECT_TRUE(history.replay.Add(change)) << change.number << " behind " << earlier;
            history.changes.push_back(change);
        }
        EXPECT_EQ(stored.number, history.replay.last);
    }
    return history;
}

// ---- The daemon ----

static short Ask(short event, const Buffer& request, Buffer& answer)
{
    ReconnectClient client(0, FaultServerName);
    client.SetRetryCount(20);
    client.SetRetryWaitTime(1);
    return client.SendEventWithResponse(event, answer, event, request, static_cast<long>(request.Size()));
}

FaultChangeList ChangesOfServer(long since)
{
    FaultChangeList list;
    Buffer request, answer;
    Pack(ChangesRequest{since, 1000}, request);
    EXPECT_EQ(Ask(ChangesEvent, request, answer), 0);
    EXPECT_TRUE(Unpack(answer, list));
    return list;
}

Faults FaultsOfServer()
{
    Faults faults;
    Buffer answer;
    FaultList list;
    EXPECT_EQ(Ask(ListEvent, Buffer(), answer), 0);
    EXPECT_TRUE(Unpack(answer, list));
    for (const FaultSummary& summary : list.faults) {
        FaultRecord fault;
        Buffer id, record;
        Pack(summary.hdr.myId, id);
        EXPECT_EQ(Ask(FetchEvent, id, record), 0);
        EXPECT_TRUE(Unpack(record, fault));
        faults[static_cast<const char*>(summary.hdr.myId)] = Packed(fault);
    }
    return faults;
}

// ---- The storm ----

Storm::Storm(unsigned seed, int every, unsigned size)
    : shared(static_cast<Shared*>(
          mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
      process(StartChild([=] { Run(*shared, seed, every, size); }))
{
}

Storm::~Storm()
{
    EndChild(process);
    munmap(shared, sizeof(Shared));
}

bool Storm::HasRaised(int count) const
{
    for (int i = 0; i < 600000 && shared->raised < count; i++) // looking closely: something is to be killed at its work
        usleep(100);
    return shared->raised >= count;
}

void Storm::Run(Shared& shared, unsigned seed, int every, unsigned size)
{
    std::mt19937 random(seed);
    ReconnectClient client(0, FaultServerName);
    client.SetRetryCount(1000);
    client.SetRetryWaitTime(0);
    Buffer answer;
    const auto send = [&](short event, const auto& object) {
        Buffer data;
        Pack(object, data);
        return client.SendEventWithResponse(event, answer, event, data, static_cast<long>(data.Size()));
    };
    for (;;) {
        while (shared.raised >= shared.allowed)
            usleep(100);
        FaultRecord fault;
        fault.summary.hdr.myId = FaultId(static_cast<long>(random() % 40), "alpha");
        fault.summary.text = ("fault " + std::to_string(shared.raised + 1)).c_str();
        if (shared.raised % every == 0)
            fault.attachment.Append(std::string(1 + random() % size, static_cast<char>('a' + random() % 26)).c_str());
        fault.summary.attached = static_cast<int>(fault.attachment.Size());
        if (send(RaiseEvent, fault) != 0) {
            usleep(1000);
            continue;
        }
        if (random() % 2 == 0)
            send(MoveEvent, FaultMove{fault.summary.hdr.myId, "working"});
        if (random() % 4 == 0)
            send(ClearEvent, fault.summary.hdr.myId);
        shared.raised = shared.raised + 1;
    }
}

} // namespace fleet_testing
