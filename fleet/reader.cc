// SPDX-License-Identifier: BSD-2-Clause
#include "reader.h"

#include <algorithm>

#include "signals.h"

namespace fleet {

static const int64_t Millisecond = 1000000; // nanoseconds
static const int64_t Forgotten = 60000 * Millisecond;
static const std::chrono::seconds LongestQuiet(5);
static const int64_t WaitForCounted = 1000; // milliseconds: what was counted may have been removed meanwhile
// Milliseconds for a consumer, in all no more than for anything else. The engine puts it on any server of the stream, also
// on one that is down, which does not answer: the next one may come to another.
static const int64_t WaitsForConsumer[] = {500, 1500, LongestWait - 2000};

Outcome Reader::Read(int most, int64_t milliseconds, std::vector<StreamMessage>* messages)
{
    const SignalsHeld held;
    messages->clear();
    Outcome outcome = Open();
    if (outcome == Outcome::Done && waiting == 0)
        outcome = Count();
    if (outcome == Outcome::Done && (waiting > 0 || milliseconds > 0))
        outcome = Fetch(most, waiting > 0 ? WaitForCounted : milliseconds, messages);
    if (!messages->empty())
        quiet = Clock::now();
    // What the engine may have sent is asked for again. And who is silent may lag behind the other servers, or not follow
    // them any more: another one may be found.
    if (outcome != Outcome::Done || Clock::now() - quiet > LongestQuiet)
        Close();
    if (outcome == Outcome::Done)
        return messages->empty() ? Outcome::Nothing : Outcome::Done;
    return messages->empty() ? outcome : Outcome::Done;
}

// Looks which stream it is.
Outcome Reader::Look()
{
    jsStreamInfo* info = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_GetStreamInfo(&info, engine.Streams(), stream.c_str(), nullptr, &code);
    if (status == NATS_OK) {
        if ((created != 0 && created != info->Created) || next > info->State.LastSeq + 1) {
            next = 1;
            begun++;
        }
        created = info->Created;
    }
    jsStreamInfo_Destroy(info);
    return status == NATS_NOT_FOUND ? engine.Note("the stream " + stream, NATS_ERR, JSStreamNotFoundErr)
                                    : engine.Note("the stream " + stream, status, code);
}

Outcome Reader::Open()
{
    if (subscription != nullptr)
        return Outcome::Done;
    const Outcome outcome = Look();
    if (outcome != Outcome::Done)
        return outcome;
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream.c_str();
    options.Config.DeliverPolicy = js_DeliverByStartSequence;
    options.Config.OptStartSeq = next;
    options.Config.AckPolicy = js_AckNone;
    options.Config.InactiveThreshold = Forgotten;
    options.Config.MemoryStorage = true;
    given = 0;
    waiting = 0;
    quiet = Clock::now();
    natsStatus status = NATS_TIMEOUT;
    jsErrCode code = static_cast<jsErrCode>(0);
    for (const int64_t wait : WaitsForConsumer) {
        jsOptions patience;
        jsOptions_Init(&patience);
        patience.Wait = wait;
        status =
            js_PullSubscribe(&subscription, engine.Streams(), subject.c_str(), nullptr, &patience, &options, &code);
        if (status != NATS_TIMEOUT)
            break;
    }
    return engine.Note("the messages of " + stream, status, code);
}

void Reader::Close()
{
    if (subscription == nullptr)
        return;
    if (natsConnection_Status(engine.Connection()) == NATS_CONN_STATUS_CONNECTED)
        natsSubscription_Unsubscribe(subscription);
    natsSubscription_Destroy(subscription);
    subscription = nullptr;
}

// Asks how many messages there are that have not been given.
Outcome Reader::Count()
{
    jsConsumerInfo* info = nullptr;
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = LongestWait;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = natsSubscription_GetConsumerInfo(&info, subscription, &options, &code);
    if (status == NATS_OK)
        waiting = info->NumPending;
    jsConsumerInfo_Destroy(info);
    return engine.Note("the messages of " + stream, status == NATS_NOT_FOUND ? NATS_ERR : status, code);
}

Outcome Reader::Fetch(int most, int64_t milliseconds, std::vector<StreamMessage>* messages)
{
    jsFetchRequest request;
    jsFetchRequest_Init(&request);
    request.Batch = most;
    request.NoWait = true; // for more than there is; for the first it waits
    request.Expires = milliseconds * Millisecond;
    natsMsgList list = {nullptr, 0};
    natsStatus status = natsSubscription_FetchRequest(&list, subscription, &request);
    for (int i = 0; i < list.Count && (status == NATS_OK || status == NATS_TIMEOUT); i++)
        if (Take(list.Msgs[i], messages))
            list.Msgs[i] = nullptr;
        else
            status = NATS_MISMATCH;
    natsMsgList_Destroy(&list);
    if (status == NATS_TIMEOUT && messages->empty())
        waiting = 0; // they are counted again
    return status == NATS_TIMEOUT ? Outcome::Done : engine.Note("the messages of " + stream, status);
}

// Takes a message, unless one before it was lost on the way.
bool Reader::Take(natsMsg* message, std::vector<StreamMessage>* messages)
{
    jsMsgMetaData* data = nullptr;
    if (natsMsg_GetMetaData(&data, message) != NATS_OK)
        return false;
    const bool isNext = data->Sequence.Consumer == given + 1 && data->Sequence.Stream >= next;
    if (isNext) {
        given++;
        next = data->Sequence.Stream + 1;
        waiting = data->NumPending;
        messages->push_back({Message(message, natsMsg_Destroy), data->Sequence.Stream, data->Timestamp});
    }
    jsMsgMetaData_Destroy(data);
    return isNext;
}

} // namespace fleet
