#include <cstring>
#include <new>

#include <sys/shm.h>

#include "Misc/ipcq/message.h"
#include "Misc/ipcq/resources.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

int64_t zeloo::SegmentSize(long shmid)
{
    struct shmid_ds status;
    return shmctl(static_cast<int>(shmid), IPC_STAT, &status) == 0 ? static_cast<int64_t>(status.shm_segsz) : -1;
}

int copy_to_shmem(const void* ptr, long size)
{
    if (ptr == nullptr || size <= 0)
        return -1;
    const int shmid = shmget(IPC_PRIVATE, static_cast<size_t>(size), IPC_CREAT | IPC_EXCL | zeloo::AccessMode);
    if (shmid < 0)
        return -1;
    void* segment = shmat(shmid, nullptr, 0);
    if (segment == reinterpret_cast<void*>(-1)) {
        delete_shmem_id(shmid);
        return -1;
    }
    std::memcpy(segment, ptr, static_cast<size_t>(size));
    shmdt(segment);
    return shmid;
}

short copy_from_shmem(long shmid, Buffer& Data, long offset, long size)
{
    if (shmid < 0 || shmid > INT32_MAX || offset < 0 || offset > INT32_MAX || size < 0 || size > INT32_MAX ||
        zeloo::SegmentSize(shmid) < size)
        return 0;
    void* segment = shmat(static_cast<int>(shmid), nullptr, SHM_RDONLY);
    if (segment == reinterpret_cast<void*>(-1))
        return 0;
    Data.PutDataAt(static_cast<unsigned>(offset), segment, static_cast<unsigned>(size));
    shmdt(segment);
    return 1;
}

void delete_shmem_id(long shmid)
{
    shmctl(static_cast<int>(shmid), IPC_RMID, nullptr);
}
