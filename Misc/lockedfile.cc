// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/lockedfile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/detail/owner.h"
#include "Misc/unixproc.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: lockedfile.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const char LockSuffix[] = ".lock";
static const mode_t LockPermissions = 0666;
static const size_t LockSize = 64;      // bytes in a lock file
static const int MostFailedTakes = 100; // of a lock that seems free each time
static const long LastSystemId = 2;     // processes up to this id are the system's and own no locks

LockFile::LockFile(CString& name, int max_retries)
    : BaseName(name), FileLocked(0), LockError(ENOMEM), LockName(name + LockSuffix), owner(getpid())
{
    if (LockName.strlen() > BaseName.strlen()) // without memory the name could be that of the protected file
        TakeLock(max_retries);
}

LockFile::~LockFile() { Cleanup(); }

void LockFile::Cleanup()
{
    // A handler that came between would leave the file, if it found the lock released, or delete the next owner's.
    const svr4::SignalsHeld held(svr4::all_but_faults());
    if (FileLocked && zeloo::IsOwner(owner))
        unlink(LockName);
    FileLocked = 0;
}

// Gets the record lock on the lock file `fd` that guards it against being judged or filled in by two processes at a
// time; it ends when `fd` is closed. False when another process has it.
static bool Guard(int fd) { return lockf(fd, F_TLOCK, 0) == 0 || (errno != EACCES && errno != EAGAIN); }

void LockFile::TakeLock(int max_retries)
{
    int tries = 0;
    for (int takes = 0; takes <= MostFailedTakes + tries; takes++) {
        const Creation creation = Create();
        if (creation == Owned)
            return;
        if (creation == Lost)
            continue;
        if (LockError != EEXIST) {
            ReportCreationError();
            return;
        }
        if (tries < max_retries) {
            tries++;
            sleep(1);
        } else if (!BreakStaleLock()) {
            return;
        }
    }
    LockError = EAGAIN;
}

// Tries to create the lock file and to become its owner.
LockFile::Creation LockFile::Create()
{
    const svr4::SignalsHeld held(svr4::all_but_faults()); // a handler that ends the process knows of the file
    const int fd = open(LockName, O_RDWR | O_CREAT | O_EXCL, LockPermissions);
    LockError = fd >= 0 ? 0 : errno;
    if (fd < 0)
        return Failed;
    return FillIn(fd) ? Owned : Lost;
}

// Makes this process the owner of the new lock file `fd`, which it closes. False when that has another owner, or none,
// already: while it is empty, other processes may take it for a stale one and delete it.
bool LockFile::FillIn(int fd)
{
    const int isMine = Guard(fd) ? IsLockFile(fd) : 0;
    if (isMine != 0)
        LockError = isMine > 0 ? WriteOwner(fd) : errno; // what cannot be examined is left, and stale while it is empty
    close(fd);
    return isMine != 0;
}

// A directory that does not exist is nothing to complain about.
void LockFile::ReportCreationError() const
{
    if (LockError == ENOENT)
        return;
    const CString text = CString("Error creating lock file ") + LockName;
    errno = LockError;
    perror(text);
}

// 0 when the content of the lock file `fd` names no live owner; else EAGAIN, or why it cannot be read.
static int ReadOwner(int fd)
{
    char text[LockSize + 1];
    const ssize_t n = pread(fd, text, LockSize, 0);
    if (n < 0)
        return errno;
    text[n] = '\0';
    const long number = strtol(text, nullptr, 10); // one that is too large becomes one that no process has
    return number <= LastSystemId || !UnixProcess::ProcessExists(number) ? 0 : EAGAIN;
}

// Deletes a stale lock file. True when it is worth trying to create the lock file again.
bool LockFile::BreakStaleLock()
{
    const int fd = open(LockName, O_RDWR);
    if (fd > 0)
        LockError = DeleteStale(fd);
    else if (fd == 0)
        LockError = EBADF; // intended: descriptor 0 counts as a failure here
    else
        LockError = errno == ENOENT ? EAGAIN : errno;
    if (fd >= 0)
        close(fd);
    return LockError == 0;
}

// Deletes the lock file `fd` if it is stale. 0 when it has gone; else EAGAIN, or why that failed.
int LockFile::DeleteStale(int fd) const
{
    if (const int error = ReadOwner(fd))
        return error;
    // Whoever has the guard is taking this lock. With it the file is examined once more: only now nobody can have
    // replaced it, or fill it in, before it is deleted.
    if (!Guard(fd))
        return EAGAIN;
    const int isLockFile = IsLockFile(fd);
    if (isLockFile <= 0)
        return isLockFile == 0 ? 0 : errno;
    if (const int error = ReadOwner(fd))
        return error;
    return unlink(LockName) == 0 ? 0 : errno;
}

// Whether `fd` is the file that bears the name of the lock file now: 1 or 0; -1 with `errno` when that cannot be told.
int LockFile::IsLockFile(int fd) const
{
    struct stat opened, named;
    if (stat(LockName, &named) != 0)
        return errno == ENOENT ? 0 : -1;
    if (fstat(fd, &opened) != 0)
        return -1;
    return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// Takes possession of the new lock file `fd`, which this process guards. 0, or why that failed.
int LockFile::WriteOwner(int fd)
{
    char text[LockSize] = "";
    FileLocked = 1;
    snprintf(text, sizeof text, "%ul", static_cast<unsigned>(owner)); // intended: the letter l is part of the content
    const ssize_t n = write(fd, text, sizeof text);
    if (n == static_cast<ssize_t>(sizeof text))
        return 0;
    const int error = n < 0 ? errno : ENOSPC;
    Cleanup();
    return error;
}

// The file `name`, created with exactly these permissions. A file that has appeared meanwhile is opened as it is.
static int CreateFile(const char* name, int permissions)
{
    const mode_t mask = umask(0);
    const int fd = open(name, O_RDWR | O_CREAT, static_cast<mode_t>(permissions));
    umask(mask);
    return fd;
}

LockedFileDesc::LockedFileDesc(CString& name, int max_retries, int createperm)
    : LockFile(name, max_retries), myfd(-1), newfile(0)
{
    if (!LockFile::Locked())
        return;
    myfd = open(BaseName, O_RDWR);
    if (myfd == -1 && errno == ENOENT) {
        myfd = CreateFile(BaseName, createperm);
        newfile = myfd != -1;
    }
    if (myfd == -1) {
        LockError = errno;
        Cleanup();
    }
}

LockedFileDesc::~LockedFileDesc() { Cleanup(); }

void LockedFileDesc::Cleanup()
{
    const int fd = myfd;
    myfd = -1; // before it is closed: a signal handler that comes now must not close another file
    if (fd != -1)
        close(fd);
    LockFile::Cleanup();
}
