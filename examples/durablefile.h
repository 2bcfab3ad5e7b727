// SPDX-License-Identifier: BSD-2-Clause
// Files whose contents survive a crash of the program and a power cut: read whole or not at all, replaced as a whole.
#ifndef EXAMPLES_DURABLEFILE_H
#define EXAMPLES_DURABLEFILE_H

#include <cstddef>
#include <string>
#include <vector>

#include <dirent.h>

#include "Misc/buffer.h"

/// What a file that is being written is called until it takes its place: its name with this behind it. One that is found
/// was left by a crash, and means nothing.
const char HalfWritten[] = ".new";

// The operations return 0, or the errno of what failed.

/// Reads the regular file `path` to its end.
int ReadWholeFile(const char* path, Buffer& content);

/// Puts `size` bytes in the place of the file `path`, which need not exist. They are on the disk before the file bears
/// its name, so that whatever happens there is the old file or the new one; SyncDirectory makes sure that it is the new
/// one. A failure changes nothing and leaves no file behind.
int ReplaceFile(const char* path, const void* bytes, std::size_t size);

/// Makes a directory, unless it is there, and puts its name on the disk.
int MakeDirectory(const char* directory);

/// Reads the names of the files of an open directory, but for those that begin with a dot, and closes it. Files that a
/// crash left half written are removed on the way.
int ReadNames(DIR* files, std::vector<std::string>& names);

/// Puts the names of the files of a directory on the disk: those that came, went or were replaced.
int SyncDirectory(const char* directory);

/// Gives the file `path` another name, `path` with ".broken" or, when there are files of that name, ".broken.2" and so
/// on; it keeps its own, which is for the caller to replace or unlink. No file is overwritten.
int SetAside(const char* path);

#endif
