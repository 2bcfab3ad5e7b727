// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/nftw.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <sys/stat.h>

#ifndef FTW_ACTIONRETVAL // a host whose callback can only stop the walk, and which ends one itself where names get too long
#define FTW_ACTIONRETVAL 0
#define FTW_CONTINUE 0
#define FTW_STOP 1
#define FTW_SKIP_SUBTREE 0
#endif

namespace svr4 {

// Of the walk that is under way: the host hands no argument to its callback.
static int (*visitor)(const char*, const struct stat*, int, struct FTW*);
static int visitorsResult;
static bool isNameTooLong;

static int Visit(const char* path, const struct stat* status, int type, struct FTW* place)
{
    if (strlen(path) >= PATH_MAX) {
        isNameTooLong = true;
        return type == FTW_D ? FTW_SKIP_SUBTREE : FTW_CONTINUE;
    }
    visitorsResult = visitor(path, status, type, place);
    return visitorsResult != 0 ? FTW_STOP : FTW_CONTINUE;
}

int nftw(const char* path, int (*visit)(const char*, const struct stat*, int, struct FTW*), int openDirectories,
         int flags)
{
    visitor = visit;
    visitorsResult = 0;
    isNameTooLong = false;
    if (::nftw(path, Visit, openDirectories, flags | FTW_ACTIONRETVAL) < 0)
        return -1;
    if (visitorsResult != 0)
        return visitorsResult;
    if (!isNameTooLong)
        return 0;
    errno = ENAMETOOLONG;
    return -1;
}

} // namespace svr4
