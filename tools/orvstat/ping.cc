// SPDX-License-Identifier: BSD-2-Clause
#include "ping.h"

#include <algorithm>

#include "Misc/Error.h"
#include "Misc/proginfo.h"
#include "askerprocess.h"
#include "format.h"
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

static bool IsGone(short code)
{
    return code >= ErrorReporter::SERVER_GONE && code <= ErrorReporter::IPC_RECV_PROCESS_GONE;
}

// Why the asker has ended of itself, before it had all answers.
static std::string ReasonOf(const Target& target, const Word& last)
{
    const char* host = target.host.c_str();
    const char* service = target.service.c_str();
    switch (last.kind) {
    case Word::NoQueue: return "its queue cannot be used: it has ended meanwhile, or there is no right to it";
    case Word::NoRelay:
        return Format("nothing listens at %s, service %s, or one of the names is not known here", host, service);
    case Word::NoServer:
        return Format("a relay listens at %s, service %s, but there is no server behind it", host, service);
    default: break;
    }
    if (!IsGone(last.code))
        return Format("%s (%d)", ErrorReporter::GetErrorType(last.code), last.code);
    if (target.host.empty())
        return "the server has ended before it answered";
    return Format(
        "the relay has ended the connection: its server has ended, or it does not take %s for this host's name",
        ProgInfo::GetNodeName());
}

// Why a relay, or the server behind it, has not answered.
static std::string SilenceOfRelay(const Target& target, const Course& course)
{
    const char* host = target.host.c_str();
    const char* service = target.service.c_str();
    if (!course.isSent)
        return Format("no relay answers at %s, service %s", host, service);
    return Format("the relay at %s, service %s, has taken the request, but its server says nothing", host, service);
}

// Why a server of this host has not answered.
static std::string SilenceOfServer(const Target& target, const Course& course)
{
    const Server server = LookAtServer(target.name);
    if (!server.queue || server.pid == 0)
        return "the server has ended meanwhile";
    const std::string who = server.state == State::Stopped
                                ? RemarkOn(server)
                                : Format("server %ld lives, but is busy or hangs", server.pid);
    const std::string waiting = Messages(*server.queue);
    const long long capacity = server.queue->capacity;
    if (!course.isSent)
        return Format("%s; its queue has no room for a request: %s of %lld", who.c_str(), waiting.c_str(), capacity);
    if (server.queue->messages == 0)
        return Format("%s; it has taken the request from its queue", who.c_str());
    return Format("%s; on its queue wait %s of %lld, where the request stays until it is taken", who.c_str(),
                  waiting.c_str(), capacity);
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

static std::string WithinLimit(const Course& course, const Ping& ping)
{
    const bool isLimitOfBoth = course.isCutShort || (!ping.response && !ping.acknowledgement);
    return isLimitOfBoth ? Format("within %lld ms", static_cast<long long>(LongestWait.count()))
                         : Format("within %lld ms more", static_cast<long long>(WaitForTheOther.count()));
}

// Says what is missing, and why as far as that can be told.
static void Conclude(const Target& target, const Course& course, Ping& ping)
{
    if (ping.response && ping.acknowledgement)
        return;
    const bool isNone = !ping.response && !ping.acknowledgement;
    const char* missing = isNone ? "no answer" : ping.response ? "no acknowledgement" : "no response";
    if (isNone)
        ping.code = CodeOf(course);
    if (course.end) {
        ping.text = Format("%s: %s", missing, ReasonOf(target, *course.end).c_str());
        return;
    }
    const std::string limit = WithinLimit(course, ping);
    ping.text = Format("%s %s", missing, limit.c_str());
    if (isNone)
        ping.text += ": " + (target.host.empty() ? SilenceOfServer(target, course) : SilenceOfRelay(target, course));
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
        return Refusal(
            NoRights, Format("no right to use its queue, of user %u", static_cast<unsigned>(server.queue->owner.user)));
    return Ping();
}

Ping SendPing(const Target& target)
{
    const Clock::time_point end = Clock::now() + LongestWait;
    Ping ping;
    if (target.host.empty())
        ping = Refusal(LookAtServer(target.name));
    if (ping.code != Fine)
        return ping;
    const AskerProcess asker(target);
    if (!asker.Started())
        return Refusal(Wrong, "no process can be started");
    Conclude(target, Follow(asker, end, ping), ping);
    return ping;
}

static std::string Describe(const char* what, const Answer& answer)
{
    std::string text = Format("%s after %.1f ms: event %d, status %d", what,
                              static_cast<double>(answer.microseconds) / 1000, answer.event, answer.status);
    if (answer.bytes > 0)
        text += Format(", %u bytes", answer.bytes);
    return text;
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
    add("host", target.host);
    add("service", target.service);
    add("response_microseconds", number(ping.response, &Answer::microseconds));
    add("response_event", number(ping.response, &Answer::event));
    add("response_status", number(ping.response, &Answer::status));
    add("response_bytes", number(ping.response, &Answer::bytes));
    add("acknowledgement_microseconds", number(ping.acknowledgement, &Answer::microseconds));
    add("acknowledgement_event", number(ping.acknowledgement, &Answer::event));
    add("acknowledgement_status", number(ping.acknowledgement, &Answer::status));
    add("remark", ping.text);
    WriteJson(members, out);
    out << '\n';
}

} // namespace orvstat
