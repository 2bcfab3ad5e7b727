// SPDX-License-Identifier: BSD-2-Clause
// What every diagnostic needs to say about the running program and its host.
#ifndef MISC_PROGINFO_H
#define MISC_PROGINFO_H

#include <ostream>

#include "Misc/export.h"

/// The command line, name and version of the running program, and the names of its host and user. The first call of
/// every program is Initialize. Before it the program's names and version are null, the argument count is 0 and its
/// vectors are null; everything else works, with the missing texts left empty. Facts about host and user are read
/// once, on first use. Returned texts belong to the class.
class ZELOO_API ProgInfo {
public:
    /// Keeps the three pointers (the vectors are not copied and must stay) and copies of argv_p[0], of its base name
    /// and of the version, which replace earlier ones. A null argv_p[0] or pVersion leaves the matching texts null.
    static void Initialize(int argc_p, char* const* argv_p, char* const* envp_p, const char* pVersion);

    /// The name that the program was started by, as it is. Valid until the next Initialize.
    static const char* GetFullProgramName();
    /// The last path component of that name. Valid until the next Initialize.
    static const char* GetProgramName();
    /// The version as it was given. Valid until the next Initialize.
    static const char* GetVersion();
    /// "PROGRAM: vVERSION(P) [NODE]" in a static buffer that the next call overwrites; cut at its end, some 5000
    /// characters. A version that is an expanded $Revision: keyword is reduced to the revision number and the blank
    /// behind it.
    static const char* GetLongVersion();
    /// The user name of the real user id; empty when it has none.
    static const char* GetLoginName();
    /// The name of this node, as `uname -n` prints it.
    static const char* GetNodeName();
    /// The name of the operating system, as `uname -s` prints it.
    static const char* GetSystemName();
    /// The release of the operating system, as `uname -r` prints it.
    static const char* GetOSRelease();
    /// The version of the operating system, as `uname -v` prints it.
    static const char* GetOSVersion();
    /// The kind of machine, as `uname -m` prints it.
    static const char* GetMachine();
    /// The instruction set; on this host the same as the kind of machine.
    static const char* GetArchitecture();
    /// The official name of the node in the host tables or the name service, or the node name itself while they do not
    /// know it. A name found is kept for good, and that there is none for a minute: the first call may wait for the name
    /// service, and a later one only when the last look-up found nothing and ended a minute ago or more.
    static const char* GetNodeNameLongVersion();
    /// The text of svr4::sysinfo for `sysinfo_id`, up to 256 characters. It is read when `*str` is null, and `*str`
    /// then gets a copy that the caller releases with delete[]. Empty when the text cannot be had.
    static const char* GetSysInfoString(int sysinfo_id, char** str);
    /// The size of the heap, in bytes.
    static int GetMaxDynamicMemoryUsed();
    /// Writes all of the above with the user and group ids, the command line and the environment.
    static void ShowProgramInfo(std::ostream& os);
    /// The argument vector that Initialize was given; null before it.
    static char* const* Getargv();
    /// The argument count that Initialize was given; 0 before it.
    static int Getargc();
};

#endif
