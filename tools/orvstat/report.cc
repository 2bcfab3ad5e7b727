// SPDX-License-Identifier: BSD-2-Clause
#include "report.h"

#include "Misc/proginfo.h"
#include "format.h"
#include "table.h"

namespace orvstat {

static const Column Columns[] = {
    {"NAME", "name", false},
    {nullptr, "key", false},
    {"STATE", "state", false},
    {"PID", "pid", true},
    {"PROGRAM", "program", false},
    {"QUEUE", "queue", true},
    {nullptr, "set", true},
    {"MSGS", "messages", true},
    {"BYTES", "bytes", true},
    {"OF", "capacity", true},
    {"BLOCK", "block_size", true},
    {"SENDER", "last_sender", true},
    {"SENT", "last_sent", false},
    {"RECEIVER", "last_receiver", true},
    {"RECEIVED", "last_received", false},
    {"SENDING", "blocked_senders", false},
    {"RECEIVING", "blocked_receivers", false},
    {nullptr, "remark", false},
};

static std::string KeyText(key_t key) { return Format("0x%08x", static_cast<unsigned>(key)); }

static Tone ToneOf(State state)
{
    switch (state) {
    case State::Up: return Tone::Good;
    case State::Stale:
    case State::NoSet: return Tone::Bad;
    default: return Tone::Doubtful;
    }
}

std::string Messages(const Queue& queue)
{
    const long long messages = queue.messages;
    const long long bytes = queue.bytes;
    switch (messages) {
    case 0: return "no message";
    case 1: return Format("1 message, %lld bytes", bytes);
    default: return Format("%lld messages, %lld bytes", messages, bytes);
    }
}

static std::string RemarkOnBlocked(size_t senders)
{
    switch (senders) {
    case 0: return "";
    case 1: return "1 process waits for room on the queue";
    default: return Format("%zu processes wait for room on the queue", senders);
    }
}

std::string DeadServer(long pid)
{
    if (pid == 0)
        return "no server is registered";
    return Format("server %ld is dead", pid);
}

static std::string RemarkOnStale(const Server& server)
{
    const char* left = server.queue ? "its queue and semaphore set are left" : "its semaphore set is left";
    const std::string dead = DeadServer(server.pid);
    if (server.names.empty())
        return Format("%s, %s", dead.c_str(), left);
    return Format("%s, %s; \"orvstat clean %s\" removes what is left", dead.c_str(), left, server.names[0].c_str());
}

std::string RemarkOn(const Server& server)
{
    switch (server.state) {
    case State::None: return "no server runs";
    case State::Up: return RemarkOnBlocked(server.blockedSenders.size());
    case State::Stopped: return Format("server %ld is stopped by a signal or a debugger", server.pid);
    case State::Starting: return Format("server %ld is starting: it has no queue yet", server.pid);
    case State::Stale: return RemarkOnStale(server);
    case State::NoSet:
        return Format(
            "nothing tells whose queue %d is: its semaphore set is gone; if no process uses it, \"ipcrm -q %d\" "
            "removes it",
            server.queue->id, server.queue->id);
    case State::Unknown: break;
    }
    const Owner& owner = server.set->owner;
    return Format("no right to read its semaphore set (user %u, mode %03o)", static_cast<unsigned>(owner.user),
                  static_cast<unsigned>(owner.mode & 0777));
}

// A number that is known if it is not 0.
static Cell Known(int64_t number)
{
    if (number <= 0)
        return Cell();
    return Cell(number);
}

static Cell Moment(int64_t seconds)
{
    if (seconds <= 0)
        return Cell();
    return Cell(Time{seconds});
}

// Adds what is said of the queue: as many cells if there is none.
static void AddQueue(const Server& server, std::vector<Cell>& row)
{
    if (!server.queue) {
        row.resize(row.size() + 8);
        return;
    }
    const Queue& queue = *server.queue;
    row.emplace_back(queue.messages);
    row.emplace_back(queue.bytes, server.blockedSenders.empty() ? Tone::Plain : Tone::Bad);
    row.emplace_back(queue.capacity);
    row.push_back(Known(queue.blockSize.value_or(0)));
    row.push_back(Known(queue.lastSender));
    row.push_back(Moment(queue.sent));
    row.push_back(Known(queue.lastReceiver));
    row.push_back(Moment(queue.received));
}

// The number of an object that may not be there.
template <class Object>
static Cell Id(const std::optional<Object>& object)
{
    if (!object)
        return Cell();
    return Cell(int64_t{object->id});
}

static std::vector<Cell> RowOf(const Server& server)
{
    std::vector<Cell> row;
    row.emplace_back(server.Name());
    row.emplace_back(KeyText(server.key));
    row.emplace_back(StateName(server.state), ToneOf(server.state));
    row.push_back(Known(server.pid));
    row.emplace_back(server.program);
    row.push_back(Id(server.queue));
    row.push_back(Id(server.set));
    AddQueue(server, row);
    row.emplace_back(server.blockedSenders);
    row.emplace_back(server.blockedReceivers);
    row.emplace_back(RemarkOn(server));
    return row;
}

static Table TableOf(const Host& host)
{
    Table table;
    table.columns.assign(std::begin(Columns), std::end(Columns));
    for (const Server& server : host.servers)
        table.rows.push_back(RowOf(server));
    return table;
}

static void WriteRemarks(const Host& host, std::ostream& out)
{
    for (const Server& server : host.servers) {
        const std::string remark = RemarkOn(server);
        const std::string name = server.names.empty() ? Format("queue %d", server.queue->id) : server.Name();
        if (!remark.empty())
            out << Visible(name + ": " + remark) << '\n';
        if (server.names.empty())
            out << name << ": no file in /opt/orv/bin has its key " << KeyText(server.key) << '\n';
    }
    if (host.unseenProcesses > 0)
        out << "Who is blocked may be more than shown: this user may not look at all processes ("
            << host.unseenProcesses << ").\n";
}

void Report(const Host& host, Form form, int64_t now, std::ostream& out)
{
    const Table table = TableOf(host);
    if (form == Form::Json) {
        out << "{\n  \"host\": " << JsonText(ProgInfo::GetNodeName()) << ",\n  \"time\": " << now
            << ",\n  \"servers\": ";
        WriteJson(table, "    ", out);
        out << ",\n  \"unseen_processes\": " << host.unseenProcesses << "\n}\n";
        return;
    }
    if (host.servers.empty())
        out << "No server has a queue on this host.\n";
    else
        WriteText(table, form == Form::ColouredText, now, out);
    WriteRemarks(host, out);
}

ExitCode ExitCodeOf(const Host& host)
{
    ExitCode code = Fine;
    for (const Server& server : host.servers) {
        if (server.names.empty()) // it may be somebody else's
            continue;
        if (server.state == State::Stale || server.state == State::NoSet)
            return Wrong;
        if (server.state == State::Unknown)
            code = NoRights;
    }
    return code;
}

} // namespace orvstat
