// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/storm/shared.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace storm {

Shared* shared = nullptr;

static const uint32_t MostNotes = 40;
static int noteFD = 2;

void MakeShared()
{
    void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        std::perror("mmap");
        std::exit(2);
    }
    shared = new (page) Shared();
}

void ResetShared() { new (shared) Shared(); }

void Note(const char* format, ...)
{
    if (shared->notes++ >= MostNotes)
        return;
    char text[400];
    int length = std::snprintf(text, sizeof text, "storm: process %d: ", int(getpid()));
    va_list arguments;
    va_start(arguments, format);
    length += std::vsnprintf(text + length, sizeof text - size_t(length) - 1, format, arguments);
    va_end(arguments);
    if (length > int(sizeof text) - 2)
        length = int(sizeof text) - 2;
    text[length++] = '\n';
    if (write(noteFD, text, size_t(length)) < 0)
        return;
}

void SendReportsTo(const char* path)
{
    noteFD = fcntl(2, F_DUPFD_CLOEXEC, 10);
    const int log = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (noteFD < 0 || log < 0 || dup2(log, 2) < 0) {
        std::perror(path);
        std::exit(2);
    }
    close(log);
}

} // namespace storm
