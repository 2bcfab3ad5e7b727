// SPDX-License-Identifier: BSD-2-Clause
// The key file of a server name.
#ifndef MISC_IPCQ_KEYFILE_H
#define MISC_IPCQ_KEYFILE_H

#include <sys/types.h>

#include "svr4/filelock.h"

namespace zeloo {

/// The file by which the queue of a server name is found: the rule of ftok_orvm. Allocates nothing.
class KeyFile {
public:
    /// The name, which may be null, must outlive the object.
    explicit KeyFile(const char* name);
    KeyFile(const KeyFile&) = delete;
    KeyFile& operator=(const KeyFile&) = delete;

    /// The key of queue and set; negative when there is no such file.
    key_t Key() const { return key; }
    /// The file; null when there is none.
    const char* Path() const { return path; }

private:
    void Try(const char* file);

    char inProgramDirectory[4096];
    const char* path;
    key_t key;
};

/// Held by whoever makes, joins or removes the queue of a name, so that nobody sees one half made or half removed. It
/// is waited for a second at most and then done without: a process that stops while it holds the lock can delay the
/// others, but not stop them.
class NameLock : public svr4::FileLock {
public:
    static constexpr int Patience = 1000; // milliseconds

    explicit NameLock(const KeyFile& file, int patience = Patience) : FileLock(file.Path(), patience) {}
};

} // namespace zeloo

#endif
