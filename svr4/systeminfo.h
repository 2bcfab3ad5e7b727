// SPDX-License-Identifier: BSD-2-Clause
// sysinfo(2) of System V.
#ifndef SVR4_SYSTEMINFO_H
#define SVR4_SYSTEMINFO_H

namespace svr4 {

enum {
    SI_SYSNAME = 1,  // name of the operating system
    SI_HOSTNAME = 2, // node name
    SI_RELEASE = 3,
    SI_VERSION = 4,
    SI_MACHINE = 5,
    SI_ARCHITECTURE = 6 // the machine name here
};

/// Copies the text of `command` (an SI_ value) into `buf`, cut to `count` bytes and always terminated. Returns the
/// number of bytes that the whole text needs with its terminator, or -1 with `errno` EINVAL.
int sysinfo(int command, char* buf, long count);

} // namespace svr4

#endif
