// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcq/ends.h"

#include <cerrno>
#include <cstdlib>

#include <sys/msg.h>
#include <unistd.h>

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

namespace {

struct Ends {
    pid_t owner;
    int servers;
    int* queues; // those with a client
    int used;
    int room;
};

} // namespace

static Ends& EndsOfThisProcess()
{
    static Ends ends = {0, 0, nullptr, 0, 0};
    if (ends.owner != getpid()) {
        ends.owner = getpid();
        ends.servers = 0;
        ends.used = 0;
    }
    return ends;
}

int LiveServers() { return EndsOfThisProcess().servers; }

void CountServer(int change) { EndsOfThisProcess().servers += change; }

static bool IsGone(int msqid)
{
    struct msqid_ds status;
    return msgctl(msqid, IPC_STAT, &status) < 0 && (errno == EINVAL || errno == EIDRM);
}

bool IsFirstClientOn(int msqid)
{
    Ends& ends = EndsOfThisProcess();
    int kept = 0;
    for (int i = 0; i < ends.used; i++) {
        if (ends.queues[i] == msqid)
            return false;
        if (!IsGone(ends.queues[i]))
            ends.queues[kept++] = ends.queues[i];
    }
    ends.used = kept;
    if (ends.used == ends.room) {
        const int room = 2 * ends.room + 4;
        void* larger = std::realloc(ends.queues, static_cast<size_t>(room) * sizeof *ends.queues);
        if (larger == nullptr)
            return false;
        ends.queues = static_cast<int*>(larger);
        ends.room = room;
    }
    ends.queues[ends.used++] = msqid;
    return true;
}

} // namespace zeloo
