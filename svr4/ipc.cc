// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/ipc.h"

#include <cstdint>
#include <cstring>

#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

// The host's type field ends where the record's does: it reaches into the headroom.
static char* HostMessage(void* record) { return static_cast<char*>(record) - (sizeof(long) - sizeof(int32_t)); }

int msgsnd(int msqid, void* record, size_t textlen, int flags)
{
    int32_t type;
    std::memcpy(&type, record, sizeof type);
    const long hostType = type;
    std::memcpy(HostMessage(record), &hostType, sizeof hostType);
    const int result = ::msgsnd(msqid, HostMessage(record), textlen, flags);
    std::memcpy(record, &type, sizeof type);
    return result;
}

ssize_t msgrcv(int msqid, void* record, size_t textlen, long type, int flags)
{
    const ssize_t received = ::msgrcv(msqid, HostMessage(record), textlen, type, flags);
    if (received < 0)
        return received;
    long hostType;
    std::memcpy(&hostType, HostMessage(record), sizeof hostType);
    const int32_t recordType = static_cast<int32_t>(hostType);
    std::memcpy(record, &recordType, sizeof recordType);
    return received;
}

key_t queue_key(const struct msqid_ds& status) { return status.msg_perm.__key; }

unsigned long queue_cbytes(const struct msqid_ds& status) { return status.__msg_cbytes; }

namespace {

// The fourth argument of semctl, which the caller has to declare.
union SemaphoreArgument {
    int val;
    struct semid_ds* buf;
};

// The largest value of a semaphore here. It stands for "the process that set this semaphore".
constexpr int OwnerSetIt = 32767;

} // namespace

long semaphore_pid(int semid, int index)
{
    const int value = semctl(semid, index, GETVAL);
    return value == OwnerSetIt ? semctl(semid, index, GETPID) : value;
}

int set_semaphore_pid(int semid, int index, long pid)
{
    if (pid < 0)
        return FailWith(EINVAL);
    if (pid >= OwnerSetIt && pid != getpid())
        return FailWith(ERANGE);
    SemaphoreArgument argument;
    argument.val = pid < OwnerSetIt ? static_cast<int>(pid) : OwnerSetIt;
    return semctl(semid, index, SETVAL, argument) < 0 ? -1 : 0;
}

int semaphore_count(int semid)
{
    struct semid_ds status;
    SemaphoreArgument argument;
    argument.buf = &status;
    return semctl(semid, 0, IPC_STAT, argument) < 0 ? -1 : static_cast<int>(status.sem_nsems);
}

} // namespace svr4
