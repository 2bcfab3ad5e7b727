// SPDX-License-Identifier: BSD-2-Clause
#include "responder.h"

#include "daemon.h"

namespace fleet {

static const int64_t Turn = 1000;    // milliseconds, after which whoever runs this may want to do something else
static const char Group[] = "gates"; // of which one gets a message

Responder::Responder(Engine& engine, const std::string& node) : engine(engine), node(node) {}

Responder::~Responder() { natsSubscription_Destroy(subscription); }

bool Responder::Run()
{
    problem.clear();
    if (!engine.Connect()) {
        problem = engine.Problem();
        return false;
    }
    if (!Subscribe())
        return false;
    natsMsg* message = nullptr;
    if (natsSubscription_NextMsg(&message, subscription, Turn) == NATS_OK)
        Answer(message);
    natsMsg_Destroy(message);
    return true;
}

// A subscription lasts as long as the connection, which mends itself unless the engine has thrown the client out.
bool Responder::Subscribe()
{
    if (subscription != nullptr && natsSubscription_IsValid(subscription))
        return true;
    natsSubscription_Destroy(subscription);
    subscription = nullptr;
    const std::string subject = RequestSubject(node);
    natsStatus status = natsConnection_QueueSubscribeSync(&subscription, engine.Connection(), subject.c_str(), Group);
    if (status == NATS_OK)
        status = natsConnection_FlushTimeout(engine.Connection(), LongestWait);
    if (status == NATS_OK)
        return true;
    natsSubscription_Destroy(subscription);
    subscription = nullptr;
    problem = "no requests on " + subject + ": " + natsStatus_GetText(status);
    return false;
}

void Responder::Answer(natsMsg* message)
{
    const char* reply = natsMsg_GetReply(message);
    if (reply == nullptr || *reply == '\0')
        return; // who does not wait for an answer is no centre
    Buffer data;
    data.Append(natsMsg_GetData(message), static_cast<unsigned>(natsMsg_GetDataLength(message)));
    FleetAnswer answer;
    answer.status = Handle(data, answer.data);
    AnswerParts::Send(engine.Connection(), reply, answer); // without an answer the centre gives up in a while
    natsConnection_FlushTimeout(engine.Connection(), LongestWait);
}

// A daemon trusts its own node with everything, so nobody else may speak in its name.
short Responder::Handle(Buffer& data, Buffer& answer) const
{
    FleetRequest request;
    if (!Unpack(data, request))
        return ErrorReporter::INVALID_DATA;
    const std::string centre(request.centre);
    if (centre == node || !IsForCentres(request.event))
        return ErrorReporter::EVENT_REJECTED;
    return Daemon(centre).Ask(request.event, request.data, answer);
}

} // namespace fleet
