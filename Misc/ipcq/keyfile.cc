// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcq/keyfile.h"

#include <cstring>

#include <sys/ipc.h>

#include "Misc/detail/paths.h"
#include "Misc/ipcq.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int KeyProject = 1;

int ftok_orvm(const char* fileptr) { return zeloo::KeyFile(fileptr).Key(); }

namespace zeloo {

KeyFile::KeyFile(const char* name) : path(nullptr), key(-1)
{
    if (name == nullptr)
        return;
    const bool isPath = std::strchr(name, '/') != nullptr;
    if (!isPath && std::strlen(name) < sizeof inProgramDirectory - sizeof ProgramDirectory) {
        stpcpy(stpcpy(inProgramDirectory, ProgramDirectory), name);
        Try(inProgramDirectory);
    }
    // The daemon's own key file has one place only: no second try for it.
    if (path == nullptr && std::strcmp(name, "orvd") != 0)
        Try(name);
}

void KeyFile::Try(const char* file)
{
    key = ftok(file, KeyProject);
    if (key != -1)
        path = file;
}

} // namespace zeloo
