// SPDX-License-Identifier: BSD-2-Clause
#include "ping.h"

#include <algorithm>
#include <cstdio>

#include "Misc/Error.h"
#include "Misc/proginfo.h"
#include "askerprocess.h"
#include "report.h"
#include "servers.h"
#include "table.h"

namespace orvstat {

typedef AskerProcess::Clock Clock;

static const std::chrono::milliseconds LongestWait(4500); // what is left of five seconds is for the end of the asker
static const std::chrono::milliseconds WaitForTheOther(1000);
static const short NullEvent = 0;

namespace {

// What has been heard of the asker.
struct Course {
    bool isSent = false;
    bool isCutShort = false; // the first answer came so late that the other had less time
    std::optional<Word> end; // a word that is the last one
};

} // namespace

// The two are alike but for what servers put into them. A response carries the event that was asked, or data; an
// acknowledgement carries no data, and the number that the server has for acknowledgements.
static void Sort(const Word& word, Ping& ping)
{
    const bool looksLikeResponse = word.event == NullEvent || word.bytes > 0;
    const bool isResponse = ping.response ? false : looksLikeResponse || ping.acknowledgement;
    (isResponse ? ping.response : ping.acknowledgement) = Answer{word.microseconds, word.event, word.code, word.bytes};
}

static Course Follow(const AskerProcess& asker, Clock::time_point end, Ping& ping)
{
    Course course;
    while (!(ping.response && ping.acknowledgement)) {
        const std::optional<Word> word = asker.Listen(end);
        if (!word)
            return course;
        switch (word->kind) {
        case Word::Sent: course.isSent = true; break;
        case Word::Answered:
            Sort(*word, ping);
            course.isCutShort = end < Clock::now() + WaitForTheOther;
            end = std::min(end, Clock::now() + WaitForTheOther);
            break;
        default: course.end = word; return course;
        }
    }
    return course;
}

static std::string CodeText(short code)
{
    return std::string(ErrorReporter::GetErrorType(code)) + " (" + std::to_string(code) + ")";
}

static bool IsGone(short code)
{
    return code >= ErrorReporter::SERVER_GONE && code <= ErrorReporter::IPC_RECV_PROCESS_GONE;
}

static std::string RelayOf(const Target& target) { return target.host + ", service " + target.service; }

// Why the asker has ended of itself, before it had all answers.
static std::string ReasonOf(const Target& target, const Word& last)
{
    const std::string where = RelayOf(target);
    switch (last.kind) {
    case Word::NoQueue: return "its queue cannot be used: it has ended meanwhile, or there is no right to it";
    case Word::NoRelay: return "nothing listens at " + where + ", or one of the names is not known here";
    case Word::NoServer: return "a relay listens at " + where + ", but there is no server behind it";
    default: break;
    }
    if (!IsGone(last.code))
        return (last.kind == Word::SendFailed ? "sending failed: " : "receiving failed: ") + CodeText(last.code);
    if (target.host.empty())
        return "the server has ended before it answered";
    return "the relay has ended the connection: its server has ended, or it does not take " +
           std::string(ProgInfo::GetNodeName()) + " for this host's name";
}

static std::string Limit(std::chrono::milliseconds limit) { return " within " + std::to_string(limit.count()) + " ms"; }

// Why the time was not enough.
static std::string ReasonOfSilence(const Target& target, const Course& course)
{
    if (!target.host.empty())
        return course.isSent
                   ? "the relay at " + RelayOf(target) + ", has taken the request, but its server says nothing"
                   : "no relay answers at " + RelayOf(target);
    const Server server = LookAtServer(target.name);
    if (!server.queue || server.pid == 0)
        return "the server has ended meanwhile";
    const Queue& queue = *server.queue;
    const std::string waiting = Messages(queue) + " of " + std::to_string(queue.capacity);
    const std::string who = server.state == State::Stopped
                                ? RemarkOn(server)
                                : "server " + std::to_string(server.pid) + " lives, but is busy or hangs";
    if (!course.isSent)
        return who + "; its queue has no room for a request: " + waiting;
    if (queue.messages == 0)
        return who + "; it has taken the request from its queue";
    return who + "; on its queue wait " + waiting + ", where the request stays until it is taken";
}

static ExitCode CodeOf(const Course& course)
{
    if (!course.end)
        return Wrong;
    switch (course.end->kind) {
    case Word::NoQueue:
    case Word::NoRelay:
    case Word::NoServer: return NoServer;
    default: return Wrong;
    }
}

static void Conclude(const Target& target, const Course& course, Ping& ping)
{
    if (ping.response && ping.acknowledgement)
        return;
    const std::string reason = course.end ? ReasonOf(target, *course.end) : "";
    if (ping.response || ping.acknowledgement) {
        const std::string missing = ping.response ? "no acknowledgement" : "no response";
        const std::string limit = course.isCutShort ? Limit(LongestWait) : Limit(WaitForTheOther) + " more";
        ping.text = missing + (course.end ? ": " + reason : limit);
        return;
    }
    ping.code = CodeOf(course);
    ping.text =
        "no answer" + (course.end ? ": " + reason : Limit(LongestWait) + ": " + ReasonOfSilence(target, course));
}

static Ping Refusal(ExitCode code, const std::string& text)
{
    Ping ping;
    ping.code = code;
    ping.text = text;
    return ping;
}

// Why a server of this host need not be asked at all; Fine when it is to be.
static Ping Refusal(const Server& server)
{
    if (server.key < 0)
        return Refusal(NoServer, "there is no key file of this name");
    switch (server.state) {
    case State::None: return Refusal(NoServer, RemarkOn(server));
    case State::Unknown: return Refusal(NoRights, RemarkOn(server));
    case State::Up:
    case State::Stopped: break;
    default: return Refusal(Wrong, RemarkOn(server));
    }
    if (!server.queue->blockSize)
        return Refusal(NoRights, "no right to use its queue (user " + std::to_string(server.queue->owner.user) + ")");
    return Ping();
}

Ping SendPing(const Target& target)
{
    const Clock::time_point end = Clock::now() + LongestWait;
    Ping ping = target.host.empty() ? Refusal(LookAtServer(target.name)) : Ping();
    if (ping.code != Fine)
        return ping;
    const AskerProcess asker(target);
    if (!asker.Started())
        return Refusal(Wrong, "no process can be started");
    Conclude(target, Follow(asker, end, ping), ping);
    return ping;
}

static std::string Describe(const std::string& what, const Answer& answer)
{
    char time[40];
    std::snprintf(time, sizeof time, "%.1f ms", static_cast<double>(answer.microseconds) / 1000);
    const std::string bytes = answer.bytes > 0 ? ", " + std::to_string(answer.bytes) + " bytes" : "";
    return what + " after " + time + ": event " + std::to_string(answer.event) + ", status " +
           std::to_string(answer.status) + bytes;
}

void WriteText(const Target& target, const Ping& ping, std::ostream& out)
{
    const auto line = [&](const std::string& text) { out << Visible(target.name + ": " + text) << '\n'; };
    if (ping.response)
        line(Describe("response", *ping.response));
    if (ping.acknowledgement)
        line(Describe("acknowledgement", *ping.acknowledgement));
    if (!ping.text.empty())
        line(ping.text);
}

void WriteJson(const Target& target, const Ping& ping, std::ostream& out)
{
    Members members;
    const auto add = [&](const char* key, const Cell& cell) { members.emplace_back(key, cell); };
    const auto number = [](const std::optional<Answer>& answer, auto member) {
        return answer ? Cell(int64_t{(*answer).*member}) : Cell();
    };
    add("name", target.name);
    add("host", target.host.empty() ? Cell() : Cell(target.host));
    add("service", target.host.empty() ? Cell() : Cell(target.service));
    add("response_microseconds", number(ping.response, &Answer::microseconds));
    add("response_event", number(ping.response, &Answer::event));
    add("response_status", number(ping.response, &Answer::status));
    add("response_bytes", number(ping.response, &Answer::bytes));
    add("acknowledgement_microseconds", number(ping.acknowledgement, &Answer::microseconds));
    add("acknowledgement_event", number(ping.acknowledgement, &Answer::event));
    add("acknowledgement_status", number(ping.acknowledgement, &Answer::status));
    add("remark", ping.text.empty() ? Cell() : Cell(ping.text));
    WriteJson(members, out);
    out << '\n';
}

} // namespace orvstat
