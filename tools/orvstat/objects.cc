// SPDX-License-Identifier: BSD-2-Clause
#include "objects.h"

#include <algorithm>
#include <cerrno>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>

#include "Misc/ipcq.h"

namespace orvstat {

namespace {

// The fourth argument of semctl, which the caller has to declare.
union SemaphoreArgument {
    int val;
    struct semid_ds* buf;
    struct seminfo* info;
};

} // namespace

static const int LargestValue = 32767;        // of a semaphore: the owner is the process that set it
static const unsigned long MostSlots = 32000; // the host's own limit
static const int16_t LargestBlock = 1700;

// The block size by the library's own rule, which lowers the process's block size to what fits the queue.
static std::optional<int> BlockSizeOn(int id)
{
    struct msqid_ds status;
    if (msgctl(id, IPC_STAT, &status) < 0)
        return std::nullopt;
    IPCMessageMaxDataLen = LargestBlock;
    check_max_data_size(id);
    const int16_t lowered = IPCMessageMaxDataLen;
    IPCMessageMaxDataLen = LargestBlock;
    return lowered > 0 ? lowered : LargestBlock; // senders go on with the last positive value
}

// msgctl of the queue in a place of the kernel's table. An old host tells only of those that may be read.
static int StatusAt(int place, struct msqid_ds* status)
{
    const int id = msgctl(place, MSG_STAT_ANY, status);
    return id < 0 && errno == EINVAL ? msgctl(place, MSG_STAT, status) : id;
}

std::vector<Queue> AllQueues()
{
    std::vector<Queue> queues;
    struct msginfo info;
    const int last = msgctl(0, MSG_INFO, reinterpret_cast<struct msqid_ds*>(&info));
    for (int place = 0; place <= last; place++) {
        struct msqid_ds status;
        const int id = StatusAt(place, &status);
        if (id < 0)
            continue;
        queues.push_back({id,
                          status.msg_perm.__key,
                          {status.msg_perm.uid, static_cast<mode_t>(status.msg_perm.mode)},
                          static_cast<int64_t>(status.msg_qnum),
                          static_cast<int64_t>(status.__msg_cbytes),
                          static_cast<int64_t>(status.msg_qbytes),
                          status.msg_lspid,
                          status.msg_lrpid,
                          status.msg_stime,
                          status.msg_rtime,
                          status.msg_ctime,
                          BlockSizeOn(id)});
    }
    return queues;
}

std::optional<std::vector<long>> ReadSlots(int setId, unsigned long slotCount)
{
    std::vector<long> slots;
    const int count = static_cast<int>(std::min(slotCount, MostSlots));
    for (int slot = 0; slot < count; slot++) {
        long pid = semctl(setId, slot, GETVAL);
        if (pid == LargestValue)
            pid = semctl(setId, slot, GETPID);
        if (pid < 0)
            return std::nullopt;
        slots.push_back(pid);
    }
    return slots;
}

// semctl of the set in a place of the kernel's table.
static int StatusAt(int place, struct semid_ds* status)
{
    SemaphoreArgument argument;
    argument.buf = status;
    const int id = semctl(place, 0, SEM_STAT_ANY, argument);
    return id < 0 && errno == EINVAL ? semctl(place, 0, SEM_STAT, argument) : id;
}

std::vector<SemaphoreSet> AllSets()
{
    std::vector<SemaphoreSet> sets;
    struct seminfo info;
    SemaphoreArgument argument;
    argument.info = &info;
    const int last = semctl(0, 0, SEM_INFO, argument);
    for (int place = 0; place <= last; place++) {
        struct semid_ds status;
        const int id = StatusAt(place, &status);
        if (id < 0)
            continue;
        sets.push_back({id,
                        status.sem_perm.__key,
                        {status.sem_perm.uid, static_cast<mode_t>(status.sem_perm.mode)},
                        status.sem_nsems,
                        status.sem_ctime,
                        ReadSlots(id, status.sem_nsems)});
    }
    return sets;
}

template <class Object>
static const Object* Find(key_t key, const std::vector<Object>& objects)
{
    const auto found = std::find_if(objects.begin(), objects.end(), [&](const Object& o) { return o.key == key; });
    return found == objects.end() || key == IPC_PRIVATE ? nullptr : &*found;
}

const Queue* QueueOf(key_t key, const std::vector<Queue>& queues) { return Find(key, queues); }

const SemaphoreSet* SetOf(key_t key, const std::vector<SemaphoreSet>& sets) { return Find(key, sets); }

int RemoveQueue(int id) { return msgctl(id, IPC_RMID, nullptr) < 0 ? errno : 0; }

int RemoveSet(int id) { return semctl(id, 0, IPC_RMID) < 0 ? errno : 0; }

} // namespace orvstat
