// SPDX-License-Identifier: BSD-2-Clause
// Facts about files named by path, and operations on their names.
#ifndef MISC_FILEINFO_H
#define MISC_FILEINFO_H

#include "Misc/export.h"

/// Static functions on files and file names. A text result lies in a buffer that the next call of the same function
/// overwrites or frees; it may be the argument of that next call. A null name counts as the name of a file that does
/// not exist, or as an empty one.
class ZELOO_API FileInfo {
public:
    /// The size of a file in bytes, LONG_MAX when it does not fit a `long`; 0 when it cannot be examined.
    static long FileSize(const char* name);
    /// The size of an open file in bytes, LONG_MAX when it does not fit a `long`; 0, with a line on standard error, when it
    /// cannot be examined.
    static long FileSize(int fd);
    /// The modification time as the text of Dates::GetDateTime; empty, with a line on standard error, when the file
    /// cannot be examined.
    static const char* FileMTime(const char* name);
    /// The modification time in seconds since the epoch, LONG_MAX when it does not fit a `long`; 0 when the file cannot be examined.
    static long FileStampTime(const char* name);
    /// 1 when there is a file of this name (a symbolic link is followed), else 0.
    static short FileExists(const char* name);

    /// `name` with a leading "~/" or "~user/" replaced by the home directory of the login or of that user (kept as
    /// "~user/" when there is no such user), and every "$NAME" (letters, digits and "_") by the value of the
    /// environment variable, or by NAME without the "$" when it is not set; so a "$" that no name follows goes. A "~"
    /// without a "/" somewhere behind it is kept. The result is cut at the host's limit for path names.
    static const char* ExpandFileName(const char* name);
    /// What stands before the last "/"; empty when there is none.
    static const char* FilePathName(const char* name);
    /// What stands behind the last "/"; the whole name when there is none.
    static const char* FileBaseName(const char* name);
};

#endif
