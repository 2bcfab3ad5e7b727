// SPDX-License-Identifier: BSD-2-Clause
#include "asker.h"

#include <cstring>
#include <random>
#include <utility>

#include "Misc/Dates.h"

#include "signals.h"

namespace fleet {

static const long AnswerSeconds = 35; // a command has 30
static const long ForgetSeconds = 60; // behind these
static const std::size_t MostRequests = 1000;
static const int64_t LookAround = 5; // milliseconds for an answer that is about to come

// Numbers begin anywhere, so that those of a server before mean nothing.
Asker::Asker(Engine& engine, const std::string& centre, const std::string& inbox)
    : engine(engine), centre(centre), inbox(inbox), last(static_cast<long>(std::random_device()() >> 2))
{
}

Asker::~Asker()
{
    while (!requests.empty())
        Drop(requests.begin());
}

void Asker::Drop(Requests::iterator at)
{
    natsSubscription_Destroy(at->second.answers);
    requests.erase(at);
}

long Asker::Ask(const CentreRequest& request)
{
    const long now = Dates::CurrentTime();
    while (!requests.empty() && requests.begin()->second.time < now - AnswerSeconds - ForgetSeconds)
        Drop(requests.begin());
    if (requests.size() >= MostRequests || !engine.Connect() ||
        natsConnection_Status(engine.Connection()) != NATS_CONN_STATUS_CONNECTED)
        return 0;
    Asked asked;
    asked.time = now;
    if (!Send(request, &asked.answers)) {
        natsSubscription_Destroy(asked.answers);
        return 0;
    }
    requests[++last] = std::move(asked);
    return last;
}

bool Asker::Send(const CentreRequest& request, natsSubscription** answers)
{
    const SignalsHeld held;
    FleetRequest sent;
    sent.centre = centre.c_str();
    sent.event = request.event;
    sent.data = request.data;
    Buffer data;
    Pack(sent, data);
    natsInbox* made = nullptr; // "_INBOX." and what no other has
    natsStatus status = natsInbox_Create(&made);
    const std::string reply = status == NATS_OK ? inbox + std::strchr(made, '.') : "";
    natsInbox_Destroy(made);
    if (status == NATS_OK)
        status = natsConnection_SubscribeSync(answers, engine.Connection(), reply.c_str());
    if (status == NATS_OK)
        status =
            natsConnection_PublishRequest(engine.Connection(), RequestSubject(std::string(request.node)).c_str(),
                                          reply.c_str(), static_cast<const void*>(data), static_cast<int>(data.Size()));
    return engine.Note("a request to " + std::string(request.node), status) == Outcome::Done;
}

bool Asker::Take(long number, CentreAnswer* answer)
{
    const auto at = requests.find(number);
    if (at == requests.end())
        return false;
    Receive(at->second, answer);
    if (answer->progress == CentreAnswer::Waits && Dates::CurrentTime() - at->second.time > AnswerSeconds)
        answer->progress = CentreAnswer::Silent;
    if (answer->progress != CentreAnswer::Waits)
        Drop(at);
    return true;
}

// Takes what has come; only for the first part it waits a little.
void Asker::Receive(Asked& asked, CentreAnswer* answer)
{
    natsStatus status = NATS_OK;
    for (int64_t wait = LookAround; answer->progress == CentreAnswer::Waits && status == NATS_OK; wait = 0) {
        natsMsg* received = nullptr;
        status = natsSubscription_NextMsg(&received, asked.answers, wait);
        const Message message(received, natsMsg_Destroy);
        if (status == NATS_NO_RESPONDERS)
            answer->progress = CentreAnswer::NoGate;
        if (status != NATS_OK)
            break;
        FleetAnswer given;
        asked.time = Dates::CurrentTime();
        if (!asked.parts.Take(received)) {
            answer->progress = CentreAnswer::Lost;
        } else if (asked.parts.IsWhole()) {
            answer->progress = CentreAnswer::Answered;
            answer->status = asked.parts.Read(&given) ? given.status : static_cast<short>(ErrorReporter::INVALID_DATA);
            answer->data = given.data;
        }
    }
}

void Asker::dumpOn(std::ostream& out) const { out << "Requests: " << requests.size() << " wait" << std::endl; }

} // namespace fleet
