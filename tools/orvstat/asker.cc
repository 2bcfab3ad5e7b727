// SPDX-License-Identifier: BSD-2-Clause
#include "asker.h"

#include <chrono>

#include <unistd.h>

#include "Misc/ipctli.h"
#include "Misc/proginfo.h"

namespace orvstat {

typedef std::chrono::steady_clock Clock;

static const short NullEvent = 0;
static const int Answers = 2;

namespace {

/// Where the words go.
class Wire {
public:
    explicit Wire(int theDescriptor) : descriptor(theDescriptor), begin(Clock::now()) {}
    /// Time counts from here.
    void Begin() { begin = Clock::now(); }
    void Say(Word::Kind kind, short code = 0, short event = 0, uint32_t bytes = 0) const
    {
        const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
        const Word word = {kind, code, event, bytes, elapsed.count()};
        if (write(descriptor, &word, sizeof word) != sizeof word) // nobody listens any more
            _exit(1);
    }

private:
    int descriptor;
    Clock::time_point begin;
};

} // namespace

// Says what became of sending. False when there is nothing to wait for.
static bool SaySent(const Wire& wire, short code)
{
    wire.Say(code == ErrorReporter::NO_ERRORS ? Word::Sent : Word::SendFailed, code);
    return code == ErrorReporter::NO_ERRORS;
}

static void AskQueue(const Target& target, Wire& wire)
{
    IPCQClient client(target.object, target.name.c_str());
    if (!client.Connected()) {
        wire.Say(Word::NoQueue);
        return;
    }
    const long server = client.GetServerPID();
    wire.Begin();
    const short sent = client.IPCSend(ProgInfo::GetFullProgramName(), ProgInfo::GetNodeName(), ProgInfo::GetVersion(),
                                      server, target.name.c_str(), target.object, NullEvent, nullptr, 0, 1, 1, -1);
    if (!SaySent(wire, sent))
        return;
    for (int answer = 0; answer < Answers; answer++) {
        short event = 0;
        short status = 0;
        short response = 0;
        short ack = 0;
        Buffer data;
        const short code = client.IPCReceive(event, server, NullEvent, data, status, response, ack);
        if (code != ErrorReporter::NO_ERRORS) {
            wire.Say(Word::Ended, code);
            return;
        }
        wire.Say(Word::Answered, status, event, data.Size());
    }
}

static void AskRelay(const Target& target, Wire& wire)
{
    const char* host = target.host.c_str();
    const char* service = target.service.c_str();
    IPCTliClient client(target.object, service, host, 1);
    if (!client.Connected()) {
        const IPCTliClient unasked(target.object, service, host, 0);
        wire.Say(unasked.Connected() ? Word::NoServer : Word::NoRelay);
        return;
    }
    wire.Begin();
    const short sent = client.TLISend(ProgInfo::GetFullProgramName(), ProgInfo::GetNodeName(), ProgInfo::GetVersion(),
                                      target.object, NullEvent, nullptr, 0, 1, 1);
    if (!SaySent(wire, sent))
        return;
    for (int answer = 0; answer < Answers; answer++) {
        short event = 0;
        short response = 0;
        short ack = 0;
        Buffer data;
        const short status = client.TLIReceive(event, data, response, ack);
        if (!client.Connected()) {
            wire.Say(Word::Ended, status);
            return;
        }
        wire.Say(Word::Answered, status, event, data.Size());
    }
}

void Ask(const Target& target, int descriptor)
{
    Wire wire(descriptor);
    if (target.host.empty())
        AskQueue(target, wire);
    else
        AskRelay(target, wire);
}

} // namespace orvstat
