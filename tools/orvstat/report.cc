// SPDX-License-Identifier: BSD-2-Clause
#include "report.h"

#include <cstdio>

#include "Misc/proginfo.h"
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

static std::string KeyText(key_t key)
{
    char text[20];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(key));
    return text;
}

static Tone ToneOf(State state)
{
    switch (state) {
    case State::Up: return Tone::Good;
    case State::Stale:
    case State::NoSet: return Tone::Bad;
    default: return Tone::Doubtful;
    }
}

static std::string ProcessesThatWait(const std::vector<long>& pids)
{
    return pids.size() == 1 ? "1 process waits" : std::to_string(pids.size()) + " processes wait";
}

std::string Messages(const Queue& queue)
{
    if (queue.messages == 0)
        return "no message";
    return std::to_string(queue.messages) + (queue.messages == 1 ? " message, " : " messages, ") +
           std::to_string(queue.bytes) + " bytes";
}

static std::string RemarkOnStale(const Server& server)
{
    const std::string who =
        server.pid > 0 ? "server " + std::to_string(server.pid) + " is dead" : std::string("no server is registered");
    const std::string what = server.queue ? "its queue and semaphore set are left" : "its semaphore set is left";
    const std::string name =
        server.names.empty() ? "" : "; \"orvstat clean " + server.names[0] + "\" removes what is left";
    return who + ", " + what + name;
}

std::string RemarkOn(const Server& server)
{
    const std::string pid = std::to_string(server.pid);
    char mode[8];
    switch (server.state) {
    case State::None: return "no server runs";
    case State::Up:
        return server.blockedSenders.empty() ? "" : ProcessesThatWait(server.blockedSenders) + " for room on the queue";
    case State::Stopped: return "server " + pid + " is stopped by a signal or a debugger";
    case State::Starting: return "server " + pid + " is starting: it has no queue yet";
    case State::Stale: return RemarkOnStale(server);
    case State::NoSet:
        return "nothing tells whose queue " + std::to_string(server.queue->id) +
               " is: its semaphore set is gone; if no process uses it, \"ipcrm -q " + std::to_string(server.queue->id) +
               "\" removes it";
    case State::Unknown: break;
    }
    std::snprintf(mode, sizeof mode, "%03o", static_cast<unsigned>(server.set->owner.mode & 0777));
    return "no right to read its semaphore set (user " + std::to_string(server.set->owner.user) + ", mode " + mode +
           ")";
}

static Cell Pid(long pid) { return pid > 0 ? Cell(int64_t{pid}) : Cell(); }

static Cell Moment(int64_t seconds) { return seconds > 0 ? Cell(Time{seconds}) : Cell(); }

static std::vector<Cell> RowOf(const Server& server)
{
    std::vector<Cell> row = {
        server.names.empty() ? Cell() : Cell(server.Name()),
        KeyText(server.key),
        Cell(std::string(StateName(server.state)), ToneOf(server.state)),
        Pid(server.pid),
        server.program.empty() ? Cell() : Cell(server.program),
        server.queue ? Cell(int64_t{server.queue->id}) : Cell(),
        server.set ? Cell(int64_t{server.set->id}) : Cell(),
    };
    if (server.queue) {
        const Queue& queue = *server.queue;
        const bool isFull = !server.blockedSenders.empty();
        row.insert(row.end(), {queue.messages, Cell(queue.bytes, isFull ? Tone::Bad : Tone::Plain), queue.capacity,
                               queue.blockSize ? Cell(int64_t{*queue.blockSize}) : Cell(), Pid(queue.lastSender),
                               Moment(queue.sent), Pid(queue.lastReceiver), Moment(queue.received)});
    } else {
        row.resize(row.size() + 8);
    }
    const std::string remark = RemarkOn(server);
    row.insert(row.end(), {server.blockedSenders, server.blockedReceivers, remark.empty() ? Cell() : Cell(remark)});
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
        const std::string name = server.names.empty() ? "queue " + std::to_string(server.queue->id) : server.Name();
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
