// SPDX-License-Identifier: BSD-2-Clause
// The regular files of a directory tree.
#ifndef MISC_FILELIST_H
#define MISC_FILELIST_H

#include <ostream>

#include "Misc/CstrArray.h"
#include "Misc/cstring.h"
#include "Misc/export.h"

/// The path names of the regular files of a directory tree, all of them or those that match a shell pattern, at the
/// time the list was made. Symbolic links are not followed; they and what cannot be examined are not listed. The
/// pattern (see svr4::gmatch) is matched against the whole path, in which "*" also matches "/": "*.log" finds
/// /var/x/a.log, "a*.log" does not. One list at a time can be made in a process. A list holds at most as many names
/// as a CStringSafeArray, and no path longer than the host takes one; what does not fit is left out with a report
/// (WARNING, OTHER).
class ZELOO_API FileList {
public:
    /// Lists the files below `rootPath`, in the order of the walk; the paths begin with `rootPath`. A root that is
    /// itself a regular file is listed; one that cannot be walked gives an empty list. A null or empty
    /// `shellPattern` lists every file. One report says that files are missing, for want of room or since the walk was
    /// cut short (by a lack of memory, say). Without memory for the pattern no file is listed.
    FileList(const char* rootPath, const char* shellPattern);
    /// Frees the list; the files stay.
    ~FileList();

    /// 1 when a path equal to `name` is in the list, else 0.
    short FindFile(const char* name) const;
    /// Adds a copy of `name`, which need not be a file, when there is no pattern or `name` matches it. A list without
    /// room, or memory, for it reports that (WARNING, OTHER). Null counts as the empty name.
    void AddFileName(const char* name);
    /// Sorts the list alphabetically (CString::compare).
    void sort();
    /// Deletes every listed file; those that cannot be deleted are passed over silently. The list stays as it is.
    void RemoveAll();

    /// Writes a heading and each path on a line of its own.
    void dumpOn(std::ostream& os) const;

    FileList(const FileList&) = delete;
    FileList& operator=(const FileList&) = delete;

private:
    CString pattern;
    short patternFlag; // 1: there is a pattern; `pattern` is empty all the same when there was no memory for it
    CStringSafeArray files;
};

#endif
