// SPDX-License-Identifier: BSD-2-Clause
#include "engine.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <vector>

#include "signals.h"

namespace fleet {

std::string Token(const std::string& name)
{
    std::string token;
    for (const char c : name) {
        const unsigned char byte = static_cast<unsigned char>(c);
        char text[4];
        std::snprintf(text, sizeof text, "=%02X", byte);
        token += std::isalnum(byte) || c == '-' || c == '_' ? std::string(1, c) : std::string(text);
    }
    return token;
}

std::string ChangeSubject(const std::string& node) { return "fault.change." + Token(node); }

std::string PieceSubject(const std::string& node, const std::string& journal, long change, long index)
{
    const std::string all = PieceSubjects(node, journal, change);
    return all.substr(0, all.size() - 1) + std::to_string(index);
}

std::string PieceSubjects(const std::string& node, const std::string& journal, long change)
{
    return "fault.piece." + Token(node) + "." + Token(journal) + "." + std::to_string(change) + ".*";
}

std::string SettledSubject(const std::string& node) { return "fault.piece." + Token(node) + ".settled"; }

std::string RequestSubject(const std::string& node) { return "fault.request." + Token(node); }

void HoldBrokenPipes()
{
    sigset_t pipes;
    sigemptyset(&pipes);
    sigaddset(&pipes, SIGPIPE);
    sigprocmask(SIG_BLOCK, &pipes, nullptr);
}

typedef std::unique_ptr<natsOptions, decltype(&natsOptions_Destroy)> Options;

Engine::Engine(const EngineAddress& address) : address(address) {}

Engine::~Engine()
{
    jsCtx_Destroy(stream);
    natsConnection_Destroy(connection);
}

// Sets the servers of a list with commas between.
static natsStatus SetServers(natsOptions* options, const std::string& list)
{
    std::vector<std::string> servers;
    for (size_t at = 0; at <= list.size();) {
        const size_t end = std::min(list.find(',', at), list.size());
        servers.push_back(list.substr(at, end - at));
        at = end + 1;
    }
    std::vector<const char*> texts;
    texts.reserve(servers.size());
    for (const std::string& server : servers)
        texts.push_back(server.c_str());
    return natsOptions_SetServers(options, texts.data(), static_cast<int>(texts.size()));
}

static natsStatus SetCredentials(natsOptions* options, const std::string& directory)
{
    natsStatus status = natsOptions_SetSecure(options, true);
    if (status == NATS_OK)
        status = natsOptions_LoadCATrustedCertificates(options, (directory + "/ca.crt").c_str());
    if (status == NATS_OK)
        status = natsOptions_LoadCertificatesChain(options, (directory + "/client.crt").c_str(),
                                                   (directory + "/client.key").c_str());
    return status;
}

static natsStatus Configure(natsOptions* options, const EngineAddress& address)
{
    natsStatus status = SetServers(options, address.servers);
    if (status == NATS_OK && !address.credentials.empty())
        status = SetCredentials(options, address.credentials);
    if (status == NATS_OK)
        status = natsOptions_SetName(options, address.name.c_str());
    if (status == NATS_OK && !address.inbox.empty())
        status = natsOptions_SetCustomInboxPrefix(options, address.inbox.c_str());
    if (status == NATS_OK)
        status = natsOptions_SetTimeout(options, LongestWait);
    if (status == NATS_OK)
        status = natsOptions_SetMaxReconnect(options, -1); // as long as it takes
    if (status == NATS_OK)
        status = natsOptions_SetReconnectWait(options, 500);
    if (status == NATS_OK)
        status = natsOptions_SetFailRequestsOnDisconnect(options, true);
    return status;
}

bool Engine::Connect()
{
    if (IsConnected())
        return true;
    const SignalsHeld held;
    jsCtx_Destroy(stream);
    natsConnection_Destroy(connection);
    stream = nullptr;
    connection = nullptr;
    natsOptions* made = nullptr;
    natsStatus status = natsOptions_Create(&made);
    const Options options(made, natsOptions_Destroy);
    if (status == NATS_OK)
        status = Configure(made, address);
    if (status == NATS_OK)
        status = natsConnection_Connect(&connection, made);
    if (status == NATS_OK)
        status = natsConnection_JetStream(&stream, connection, nullptr);
    if (status == NATS_OK)
        return true;
    Note("no connection to " + address.servers, status);
    natsConnection_Destroy(connection);
    connection = nullptr;
    return false;
}

// Keeps what failed and says what kind of failure it is.
Outcome Engine::Note(const std::string& what, natsStatus status, jsErrCode code)
{
    if (status == NATS_OK)
        return Outcome::Done;
    if (code == JSStreamWrongLastSequenceErr)
        return Outcome::Passed;
    if (status == NATS_NOT_FOUND && code == 0)
        return Outcome::Nothing;
    problem = what + ": " + natsStatus_GetText(status);
    const char* detail = nats_GetLastError(nullptr);
    if (detail != nullptr && *detail != '\0')
        problem += std::string(" (") + detail + ")";
    return code != 0 ? Outcome::Refused : Outcome::Away;
}

Outcome Engine::SetUp(const StreamSettings& settings)
{
    const char* subjects[] = {"fault.change.*", "fault.piece.>"};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = StreamName;
    config.Subjects = subjects;
    config.SubjectsLen = 2;
    config.Replicas = settings.replicas;
    config.MaxBytes = settings.bytes;
    config.Discard = js_DiscardNew; // a gate tries again, and no change is lost
    config.AllowDirect = true;
    jsErrCode code = static_cast<jsErrCode>(0);
    natsStatus status = js_AddStream(nullptr, stream, &config, nullptr, &code);
    if (status != NATS_OK && code == JSStreamNameExistErr)
        status = js_UpdateStream(nullptr, stream, &config, nullptr, &code);
    return Note(std::string("the stream ") + StreamName, status, code);
}

static bool ReadPosition(natsMsg* message, Position* position)
{
    const char* journal = nullptr;
    const char* number = nullptr;
    if (natsMsgHeader_Get(message, JournalHeader, &journal) != NATS_OK ||
        natsMsgHeader_Get(message, NumberHeader, &number) != NATS_OK)
        return false;
    const std::string digits = number;
    const char* end = digits.data() + digits.size();
    const std::from_chars_result read = std::from_chars(digits.data(), end, position->number);
    position->sequence = natsMsg_GetSequence(message);
    position->journal = journal;
    return read.ec == std::errc() && read.ptr == end && position->number > 0 && position->sequence != 0;
}

Outcome Engine::Last(const std::string& node, Position* position, Buffer* changes)
{
    const SignalsHeld held;
    *position = Position();
    changes->PurgeContents();
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = LongestWait;
    jsDirectGetMsgOptions wanted;
    jsDirectGetMsgOptions_Init(&wanted);
    const std::string subject = ChangeSubject(node);
    wanted.LastBySubject = subject.c_str();
    natsMsg* found = nullptr;
    const natsStatus status = js_DirectGetMsg(&found, stream, StreamName, &options, &wanted);
    const Message message(found, natsMsg_Destroy);
    if (status == NATS_OK && !ReadPosition(found, position)) {
        *position = Position();
        problem = "the last message on " + subject + " is not one of a gate";
        return Outcome::Refused;
    }
    if (status == NATS_OK)
        changes->Append(natsMsg_GetData(found), static_cast<unsigned>(natsMsg_GetDataLength(found)));
    return Note("the last change of " + node, status);
}

// Stores a message behind the message `after` of its subject; 0: as the first one, which is asked for when there is none.
Outcome Engine::Store(natsMsg* message, uint64_t after, uint64_t* sequence)
{
    const SignalsHeld held;
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = LongestWait;
    options.ExpectStream = StreamName;
    options.ExpectLastSubjectSeq = after;
    options.ExpectNoMessage = after == 0;
    jsPubAck* stored = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_PublishMsg(&stored, stream, message, &options, &code);
    if (status == NATS_OK)
        *sequence = stored->Sequence;
    jsPubAck_Destroy(stored);
    return Note(std::string("a message to ") + natsMsg_GetSubject(message), status, code);
}

Outcome Engine::Settle(const std::string& node) { return PublishPiece(SettledSubject(node), "", 0); }

Outcome Engine::Publish(const std::string& node, const Buffer& changes, Position* position)
{
    natsMsg* made = nullptr;
    natsStatus status =
        natsMsg_Create(&made, ChangeSubject(node).c_str(), nullptr,
                       static_cast<const char*>(static_cast<const void*>(changes)), static_cast<int>(changes.Size()));
    const Message message(made, natsMsg_Destroy);
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made, JournalHeader, position->journal.c_str());
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made, NumberHeader, std::to_string(position->number).c_str());
    if (status != NATS_OK)
        return Note("a message", status);
    return Store(made, position->sequence, &position->sequence);
}

Outcome Engine::PublishPiece(const std::string& subject, const void* bytes, std::size_t size)
{
    const SignalsHeld held;
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = LongestWait;
    options.ExpectStream = StreamName;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status =
        js_Publish(nullptr, stream, subject.c_str(), bytes, static_cast<int>(size), &options, &code);
    return Note("a message to " + subject, status, code);
}

} // namespace fleet
