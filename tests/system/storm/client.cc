// SPDX-License-Identifier: BSD-2-Clause
// A client of a storm: asks, and checks every answer.
#include <algorithm>
#include <cstdio>
#include <memory>

#include <unistd.h>

#include "Misc/Error.h"
#include "Misc/ipcobject.h"
#include "tests/system/storm/shared.h"
#include "tests/system/storm/traffic.h"

namespace storm {

namespace {

const long ReceiveSeconds = 30;
const int64_t ReachSeconds = 2;

class Caller {
public:
    Caller(const Orders& ordersGiven, Slot& place, uint32_t number) : orders(ordersGiven), slot(place), identity(number)
    {
    }

    void Run()
    {
        while (!shared->clientsAreToEnd && (client != nullptr || Connect()))
            Ask();
    }

private:
    bool Connect()
    {
        slot.what = "connecting";
        int64_t since = Now();
        uint32_t reignBefore = shared->reign;
        for (; !shared->clientsAreToEnd; SleepMilliseconds(3)) {
            const uint32_t reign = shared->reign;
            if (orders.isFar)
                client = std::make_unique<IPCClient>(Object, ServerName, FarHost, IPCClient::TLIClient);
            else
                client = std::make_unique<IPCClient>(Object, ServerName, nullptr, IPCClient::QueueClient);
            client->SetReceiveTimeOut(ReceiveSeconds);
            if (client->Connected() && reign % 2 == 1 && reign == shared->reign) {
                connectedIn = reign;
                return true;
            }
            client.reset();
            if (reign % 2 == 0 || reign != reignBefore || shared->stopped > 0)
                since = Now();
            reignBefore = reign;
            if (Now() - since > ReachSeconds * 1000000000) {
                Note("client %u does not reach the server, which lives", identity);
                shared->lost++;
                since = Now();
            }
        }
        return false;
    }

    // Sends a request, or all requests of a burst, and takes the answers.
    void Ask()
    {
        const uint32_t first = next;
        uint32_t end = first + 1;
        if (Exchange(identity, first, orders.onlyLarge).isInBurst)
            end = (first / BurstLength + 1) * BurstLength;
        Begin(first);
        short code = ErrorReporter::NO_ERRORS;
        uint32_t sent = first;
        while (sent < end && (code = Send(sent)) == ErrorReporter::NO_ERRORS)
            sent++;
        slot.what = "receiving";
        uint32_t answered = first;
        while (code == ErrorReporter::NO_ERRORS && answered < sent && (code = Receive(answered)) == 0)
            answered++;
        next = end;
        if (code != ErrorReporter::NO_ERRORS)
            GiveUp(end - answered, code);
        else
            NoteTime();
        slot.since = 0;
    }

    short Send(uint32_t number)
    {
        const Exchange exchange(identity, number, orders.onlyLarge);
        slot.bytes = exchange.requestSize;
        slot.number = number;
        slot.what = "sending";
        char name[80];
        std::snprintf(name, sizeof name, "storm %u %u %u", identity, number, givenUp);
        client->RegisterProgramName(name);
        Fill(words, exchange.RequestPattern(), exchange.requestSize);
        return client->send_event_with_response(exchange.event, words.data(), long(exchange.requestSize));
    }

    // The code with which it failed, -1 when the time limit ran out.
    short Receive(uint32_t number)
    {
        const Exchange expected(identity, number, orders.onlyLarge);
        for (;;) {
            short event = 0;
            const short status = client->receive_response(event, data);
            if (event == 0)
                return status != 0 ? status : short(-1);
            if (event == expected.event && status == expected.status &&
                Holds(data, expected.AnswerPattern(), expected.answerSize)) {
                shared->answers++;
                return 0;
            }
            Judge(expected, event, status);
            if (event == expected.event)
                return 0;
        }
    }

    // An answer that is not the one awaited.
    void Judge(const Exchange& expected, short event, short status)
    {
        for (uint32_t back = 1; back < 100 && back < expected.number; back++) {
            const Exchange earlier(identity, expected.number - back, orders.onlyLarge);
            if (event != earlier.event || status != earlier.status)
                continue;
            if (earlier.number >= firstGivenUp && earlier.number < endGivenUp)
                return; // late
            Note("client %u got answer %u again, awaiting %u", identity, earlier.number, expected.number);
            shared->doubled++;
            return;
        }
        Note("client %u, awaiting answer %u: event %d of %d, status %d of %d, %u bytes of %u", identity,
             expected.number, event, expected.event, status, expected.status, data.Size(), expected.answerSize);
        (event == expected.event ? shared->damaged : shared->misordered)++;
    }

    // ---- Time ----

    void Begin(uint32_t number)
    {
        reign = shared->reign;
        stops = shared->stops;
        isCalm = shared->stopped == 0;
        begin = Now();
        slot.number = number;
        slot.since = begin;
    }
    /// Whether the server has lived since the request began, and before that since the client was connected.
    bool ServerLived() const
    {
        return reign % 2 == 1 && reign == shared->reign && (orders.isFar || connectedIn == reign);
    }
    void NoteTime()
    {
        const int64_t time = Now() - begin;
        if (!ServerLived() || !isCalm || stops != shared->stops)
            return;
        for (int64_t before = shared->slowest; time > before && !shared->slowest.compare_exchange_weak(before, time);) {
        }
        if (time > 2000000000)
            Note("client %u: request %u took %.3f s", identity, slot.number.load(), double(time) / 1e9);
    }
    void GiveUp(uint32_t count, short code)
    {
        if (ServerLived()) {
            Note("client %u: request %u and %u more failed with %d after %.3f s, %s, though the server lives", identity,
                 slot.number.load(), count - 1, code, double(Now() - begin) / 1e9, slot.what.load());
            shared->lost += count;
        }
        givenUp += count;
        firstGivenUp = next - count;
        endGivenUp = next;
        client.reset();
    }

    const Orders& orders;
    Slot& slot;
    const uint32_t identity;
    std::unique_ptr<IPCClient> client;
    uint32_t connectedIn = 0;
    uint32_t next = 1;
    uint32_t givenUp = 0;
    uint32_t firstGivenUp = 0;
    uint32_t endGivenUp = 0;
    int64_t begin = 0;
    uint32_t reign = 0;
    uint32_t stops = 0;
    bool isCalm = false;
    Buffer data;
    std::vector<uint64_t> words;
};

} // namespace

void RunClient(const Orders& orders, Slot& slot, uint32_t identity)
{
    slot.pid = getpid();
    Caller(orders, slot, identity).Run();
}

} // namespace storm
