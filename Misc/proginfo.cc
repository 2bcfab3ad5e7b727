// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/proginfo.h"

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "Misc/detail/hostname.h"
#include "Misc/detail/text.h"
#include "svr4/process.h"
#include "svr4/systeminfo.h"

using zeloo::BaseName;
using zeloo::NewText;
using zeloo::TextOrEmpty;

[[maybe_unused]] static const char* ModuleId() { return "$Id: proginfo.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const char BuildLetter[] = "P";
static const char RevisionKeyword[] = "$Revision:";
// That the name service does not know the node is kept for so long, as every log record asks for the name: while no name
// server answers each look-up takes many seconds.
static const std::chrono::minutes LookUpInterval(1);
static const char Separator[] = "---------------------------------------------------\n";

static int argc;
static char* const* argv;
static char* const* envp;
static char* fullProgramName;
static const char* programName;
static char* version;

// Filled on first use.
static char* loginName;
static char* nodeName;
static char* nodeNameLongVersion;
static char* translatedNodeName;
static char* systemName;
static char* osRelease;
static char* osVersion;
static char* machine;
static char* architecture;

// The program's name names its crash file, so it does not lie on the heap, which may be in pieces then, unless it is
// longer than the name of a file can be.
static char shortProgramName[NAME_MAX + 1];
static char* longProgramName;

static void Replace(char** kept, char* text)
{
    delete[] * kept;
    *kept = text;
}

void ProgInfo::Initialize(int argc_p, char* const* argv_p, char* const* envp_p, const char* pVersion)
{
    argc = argc_p;
    argv = argv_p;
    envp = envp_p;
    // All copies are made before the old ones go: the arguments may be those.
    const char* name = argv_p != nullptr ? argv_p[0] : nullptr;
    char* newFullName = NewText(name);
    char* newVersion = NewText(pVersion);
    const char* base = name != nullptr ? BaseName(name) : nullptr;
    const bool isLong = base != nullptr && strlen(base) >= sizeof shortProgramName;
    char* newLongName = isLong ? NewText(base) : nullptr;
    if (base != nullptr && !isLong)
        memmove(shortProgramName, base, strlen(base) + 1);
    programName = isLong ? newLongName : base != nullptr ? shortProgramName : nullptr;
    Replace(&longProgramName, newLongName);
    Replace(&fullProgramName, newFullName);
    Replace(&version, newVersion);
}

const char* ProgInfo::GetFullProgramName() { return fullProgramName; }
const char* ProgInfo::GetProgramName() { return programName; }
const char* ProgInfo::GetVersion() { return version; }

const char* ProgInfo::GetLongVersion()
{
    static char text[PATH_MAX + 1024];
    const char* shown = TextOrEmpty(version);
    size_t length = strlen(shown);
    const size_t keyword = sizeof RevisionKeyword - 1;
    if (strncmp(shown, RevisionKeyword, keyword) == 0) {
        // The blank behind the keyword and the closing dollar sign go; the blank before the latter stays, intended.
        const size_t skipped = length > keyword ? keyword + 1 : keyword;
        shown += skipped;
        length -= skipped;
        if (length > 0)
            length--;
    }
    snprintf(text, sizeof text, "%s: v%.*s(%s) [%s]", TextOrEmpty(fullProgramName), static_cast<int>(length), shown,
             BuildLetter, GetNodeNameLongVersion());
    return text;
}

static const char* UserName(uid_t uid)
{
    const struct passwd* entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : "";
}

static const char* GroupName(gid_t gid)
{
    const struct group* entry = getgrgid(gid);
    return entry != nullptr ? entry->gr_name : "";
}

const char* ProgInfo::GetLoginName()
{
    if (loginName == nullptr)
        loginName = NewText(UserName(getuid()));
    return TextOrEmpty(loginName);
}

const char* ProgInfo::GetNodeName() { return GetSysInfoString(svr4::SI_HOSTNAME, &nodeName); }
const char* ProgInfo::GetSystemName() { return GetSysInfoString(svr4::SI_SYSNAME, &systemName); }
const char* ProgInfo::GetOSRelease() { return GetSysInfoString(svr4::SI_RELEASE, &osRelease); }
const char* ProgInfo::GetOSVersion() { return GetSysInfoString(svr4::SI_VERSION, &osVersion); }
const char* ProgInfo::GetMachine() { return GetSysInfoString(svr4::SI_MACHINE, &machine); }
const char* ProgInfo::GetArchitecture() { return GetSysInfoString(svr4::SI_ARCHITECTURE, &architecture); }

const char* ProgInfo::GetNodeNameLongVersion()
{
    using std::chrono::steady_clock;
    static steady_clock::time_point nextLookUp; // at once

    const char* node = GetSysInfoString(svr4::SI_HOSTNAME, &nodeNameLongVersion);
    if (translatedNodeName == nullptr && steady_clock::now() >= nextLookUp) {
        translatedNodeName = NewText(zeloo::OfficialHostName(node));
        nextLookUp = steady_clock::now() + LookUpInterval; // from the end of the look-up, which may have taken long
    }
    return translatedNodeName != nullptr ? translatedNodeName : node;
}

const char* ProgInfo::GetSysInfoString(int sysinfo_id, char** str)
{
    char text[257];
    if (*str == nullptr && svr4::sysinfo(sysinfo_id, text, sizeof text) >= 0)
        *str = NewText(text);
    return TextOrEmpty(*str);
}

int ProgInfo::GetMaxDynamicMemoryUsed()
{
    const long size = svr4::heap_size();
    return size < INT_MAX ? static_cast<int>(size) : INT_MAX;
}

void ProgInfo::ShowProgramInfo(std::ostream& os)
{
    os << Separator << "Program Information\n" << Separator;
    os << "Program Name:      " << TextOrEmpty(GetProgramName()) << '\n'
       << "Full Program Name: " << TextOrEmpty(GetFullProgramName()) << '\n'
       << "Version:           " << TextOrEmpty(GetVersion()) << '\n'
       << "Long Version:      " << GetLongVersion() << '\n'
       << "Login Name:        " << GetLoginName() << '\n'
       << "uid:               " << getuid() << ' ' << UserName(getuid()) << '\n'
       << "euid:              " << geteuid() << ' ' << UserName(geteuid()) << '\n'
       << "gid:               " << getgid() << ' ' << GroupName(getgid()) << '\n'
       << "egid:              " << getegid() << ' ' << GroupName(getegid()) << '\n'
       << "NodeName:          " << GetNodeName() << '\n'
       << "SystemName:        " << GetSystemName() << '\n'
       << "Unix Release:      " << GetOSRelease() << '\n'
       << "Unix Version:      " << GetOSVersion() << '\n'
       << "Machine:           " << GetMachine() << '\n'
       << "Architecture:      " << GetArchitecture() << '\n'
       << "Current Dynamic Memory Max: " << GetMaxDynamicMemoryUsed() << '\n';
    os << Separator << "Command Line Parameters\n" << Separator;
    for (int i = 0; argv != nullptr && i < argc && argv[i] != nullptr; i++)
        os << "argv[" << i << "]: " << argv[i] << '\n';
    os << Separator << Separator << "Environment:\n" << Separator;
    for (char* const* entry = envp; entry != nullptr && *entry != nullptr; entry++)
        os << *entry << '\n';
    os << Separator;
}

char* const* ProgInfo::Getargv() { return argv; }
int ProgInfo::Getargc() { return argc; }
