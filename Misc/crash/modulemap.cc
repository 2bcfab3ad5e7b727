// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/crash/modulemap.h"

#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/crash/signalfile.h"
#include "Misc/detail/immortal.h"
#include "svr4/modules.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

namespace {

// A map is rotated with its crash file. It grows beyond this only where crash files are taken away and maps are not.
constexpr off_t MapBeyond = 1024 * 1024;

constexpr size_t NameLength = 1100;

struct MapFile {}; // tells this stream from others

SignalFile& Map() { return Immortal<SignalFile, MapFile>(); }

// Puts the name of the map of a crash file into `name`.
void NameMap(const char* crashFile, char (&name)[NameLength])
{
    const size_t stem = strlen(crashFile) - strlen(".sig");
    snprintf(name, sizeof name, "%.*s.map", static_cast<int>(stem), crashFile);
}

void MoveAway(const char* map)
{
    char oldName[NameLength + 4];
    snprintf(oldName, sizeof oldName, "%s.old", map);
    if (rename(map, oldName) != 0)
        unlink(oldName); // it belongs to a crash file that is there no more
}

void WritePath(const char* path, std::ostream& file)
{
    for (; *path != '\0'; path++) {
        const auto c = static_cast<unsigned char>(*path);
        char octal[8];
        snprintf(octal, sizeof octal, "\\%03o", c);
        if (c < ' ' || c == 0x7f || c == '\\')
            file << octal;
        else
            file.put(*path);
    }
}

void WriteModule(const svr4::Module& module, std::ostream& file)
{
    char line[128];
    snprintf(line, sizeof line, "low=%08lx\thigh=%08lx\tbias=%08lx\tbuildid=", static_cast<unsigned long>(module.low),
             static_cast<unsigned long>(module.high), static_cast<unsigned long>(module.bias));
    file << line;
    for (size_t i = 0; i < module.buildIdLength; i++) {
        snprintf(line, sizeof line, "%02x", module.buildId[i]);
        file << line;
    }
    file << "\tpath=";
    WritePath(module.path, file);
    file << '\n';
}

// A descriptor, or -1 where the file is none to write to.
int OpenMap(const char* name)
{
    struct stat status;
    if (lstat(name, &status) == 0) {
        if (!S_ISREG(status.st_mode))
            return -1;
        if (status.st_size > MapBeyond)
            MoveAway(name);
    }
    return OpenForDump(name, O_APPEND | O_NOFOLLOW);
}

void WriteBlock(void (*heading)(std::ostream& file), SignalFile& file)
{
    file << '\n';
    heading(file);
    const svr4::ModuleList modules = svr4::kept_modules();
    file << "pid=" << getpid() << "\tmodules=" << modules.count << '\n';
    for (const svr4::Module* module = modules.first; module != nullptr && file; module = module->next)
        WriteModule(*module, file);
    file.flush();
}

} // namespace

void MakeReadyForModuleMap() { Map(); }

void WriteModuleMap(const char* crashFile, void (*heading)(std::ostream& file))
{
    char name[NameLength];
    NameMap(crashFile, name);
    const int fd = OpenMap(name);
    if (fd < 0)
        return;
    struct stat before = {};
    fstat(fd, &before);
    if (S_ISREG(before.st_mode)) { // still
        SignalFile& file = Map();
        file.Attach(fd, 0, nullptr);
        WriteBlock(heading, file);
        if (!file) // the report needs the room; a block that another process has put behind it meanwhile is no better off
            (void)!ftruncate(fd, before.st_size);
    }
    close(fd);
}

void RotateModuleMap(const char* crashFile)
{
    char name[NameLength];
    NameMap(crashFile, name);
    MoveAway(name);
}

} // namespace zeloo
