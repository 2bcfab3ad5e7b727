// SPDX-License-Identifier: BSD-2-Clause
// Walks through directory trees.
#ifndef SVR4_NFTW_H
#define SVR4_NFTW_H

#include <ftw.h>

namespace svr4 {

/// nftw(3C) of System V: calls `visit` for what is in the tree below `path`, as far as path names reach. The host's own
/// goes on where they have become longer than any call takes them, calls itself for every level of the tree and so ends
/// the process in one that is deep enough.
///
/// The result is 0; what `visit` returned when that was not 0, which ends the walk; or -1 with errno set. ENAMETOOLONG
/// then means that something has a name too long to be visited: the walk went around it. One walk at a time.
int nftw(const char* path, int (*visit)(const char*, const struct stat*, int, struct FTW*), int openDirectories,
         int flags);

} // namespace svr4

#endif
