// SPDX-License-Identifier: BSD-2-Clause
// Exclusive use of a named file between cooperating processes.
#ifndef MISC_LOCKEDFILE_H
#define MISC_LOCKEDFILE_H

#include <sys/types.h>

#include "Misc/cstring.h"
#include "Misc/export.h"
#include "Misc/mobject.h"

/// The exclusive use of a resource, which is named by a path; a file of that name need not exist. The owner is the
/// process that created the lock file "NAME.lock", which lasts until the object dies or a signal ends the program
/// (see MonitoredObject). A lock file whose owner has died otherwise is found stale and replaced.
///
/// The lock file holds 64 bytes: the owner's process id in decimal, the letter "l" and zero bytes. It is stale when it
/// does not begin with a number, or when that number is below 3 or not the id of a process of this host. However many
/// processes find the same stale lock, it is never their successor's lock that they delete: each one decides under a
/// record lock on the lock file, which is also held while an owner fills in its own. (A file system without record
/// locks gives no such guard.)
///
/// Only the process that took the lock removes it; the copy of the object in a forked child leaves it alone, so a
/// program that goes into the background takes its locks afterwards. A relative name must be used from the same
/// directory throughout.
class ZELOO_API LockFile : public MonitoredObject {
public:
    /// Tries to take the lock on `name`: once, and while the lock file exists up to `max_retries` times more, after a
    /// second each. Then it replaces the lock file if it is stale, and gives up otherwise. Locked() tells the result.
    /// A directory that does not exist ends the attempt at once; so does any other error than that the lock file
    /// exists, with a message on standard error. A lock file that cannot be examined, or that is stale and cannot be
    /// opened for reading and writing or deleted, ends it too. `name` is copied and not changed.
    explicit LockFile(CString& name, int max_retries = 0);
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;
    /// Calls Cleanup.
    ~LockFile() override;

    /// 1 while this object holds the lock, else 0.
    short Locked() const { return FileLocked; }
    /// Why the constructor did not get the lock: EAGAIN when another process has it, or is about to take or release it;
    /// else the `errno` of what failed. 0 when it got it.
    int Error() const { return LockError; }
    /// Releases the lock, if it is held, by deleting the lock file. May be called in a signal handler.
    virtual void Cleanup();
    /// Calls Cleanup.
    void SigTermProc(int) override { Cleanup(); }

protected:
    CString BaseName; ///< The name of the resource.
    short FileLocked; ///< 1 while this object holds the lock.
    int LockError;    ///< What Error gives.

private:
    enum Creation { Owned, Lost, Failed }; // of the lock file; lost to another process, or not made

    void TakeLock(int max_retries);
    Creation Create();
    bool FillIn(int fd);
    void ReportCreationError() const;
    bool BreakStaleLock();
    int DeleteStale(int fd) const;
    int IsLockFile(int fd) const;
    int WriteOwner(int fd);

    CString LockName; // kept, since a signal handler cannot allocate
    pid_t owner;      // the process that made the object
};

/// A lock together with a descriptor, for reading and writing, of the file it protects.
class ZELOO_API LockedFileDesc : public LockFile {
public:
    /// Takes the lock as LockFile does and then opens the file `name`, or creates it with exactly the permissions
    /// `createperm`, whatever the process's mask, when it does not exist. When that fails the lock is released.
    LockedFileDesc(CString& name, int max_retries, int createperm);
    /// Calls Cleanup. The protected file stays.
    ~LockedFileDesc() override;

    /// 1 while this object holds the lock and the descriptor, else 0.
    short Locked() const { return LockFile::Locked() && myfd != -1; }
    /// The descriptor, which belongs to this object; -1 when it is not open.
    int fd() const { return myfd; }
    /// 1 when the constructor created the file, else 0.
    short IsNewFile() const { return newfile; }
    /// Closes the descriptor, in a forked child the child's own one, and releases the lock.
    void Cleanup() override;
    /// Calls Cleanup.
    void SigTermProc(int) override { Cleanup(); }

private:
    int myfd;
    short newfile;
};

#endif
