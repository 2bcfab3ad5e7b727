// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/tli.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <sys/uio.h>
#include <unistd.h>

#include "svr4/errno.h"
#include "svr4/tli/endpoint.h"
#include "svr4/tli/texts.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace tli;

Failure tli::Fail(int code)
{
    t_errno = code;
    return {};
}

Failure tli::FailSystem(int error)
{
    errno = error;
    return Fail(TSYSERR);
}

Failure tli::FailAddress(int error)
{
    switch (error) {
    case EADDRINUSE: return Fail(TADDRBUSY);
    case EACCES:
    case EPERM: return Fail(TACCES);
    default: return FailSystem(error);
    }
}

int t_getstate(int fd)
{
    const Endpoint* endpoint = Find(fd);
    return endpoint == nullptr ? -1 : endpoint->state;
}

static size_t SizeOf(int struct_type)
{
    switch (struct_type) {
    case T_BIND: return sizeof(struct t_bind);
    case T_CALL: return sizeof(struct t_call);
    case T_DIS: return sizeof(struct t_discon);
    case T_INFO: return sizeof(struct t_info);
    default: return 0;
    }
}

// The address buffer of a structure, which is the first thing in it, or null for one without.
static struct netbuf* AddressOf(void* ptr, int struct_type)
{
    return struct_type == T_BIND || struct_type == T_CALL ? static_cast<struct netbuf*>(ptr) : nullptr;
}

void* t_alloc(int fd, int struct_type, int fields)
{
    if (Find(fd) == nullptr)
        return nullptr;
    const size_t size = SizeOf(struct_type);
    if (size == 0)
        return Fail(TNOSTRUCTYPE);
    void* ptr = calloc(1, size);
    if (ptr == nullptr)
        return FailSystem(ENOMEM);
    struct netbuf* address = AddressOf(ptr, struct_type);
    if (address == nullptr || (fields & T_ADDR) == 0)
        return ptr;
    address->buf = static_cast<char*>(calloc(1, sizeof(struct sockaddr_storage)));
    if (address->buf == nullptr) {
        free(ptr);
        return FailSystem(ENOMEM);
    }
    address->maxlen = sizeof(struct sockaddr_storage);
    return ptr;
}

int t_free(void* ptr, int struct_type)
{
    if (SizeOf(struct_type) == 0)
        return Fail(TNOSTRUCTYPE);
    if (ptr == nullptr)
        return 0;
    if (const struct netbuf* address = AddressOf(ptr, struct_type))
        free(address->buf);
    free(ptr);
    return 0;
}

void t_error(const char* errmsg)
{
    const SavedErrno savedErrno;
    struct iovec parts[6];
    int count = 0;
    const auto add = [&](const char* text) { parts[count++] = {const_cast<char*>(text), strlen(text)}; };
    if (errmsg != nullptr && *errmsg != '\0') {
        add(errmsg);
        add(": ");
    }
    add(t_strerror(t_errno));
    if (t_errno == TSYSERR) {
        add(": ");
        add(strerror(savedErrno.Value()));
    }
    add("\n");
    if (writev(STDERR_FILENO, parts, count) < 0) {
        // There is nowhere else to say it.
    }
}

const char* t_strerror(int errnum)
{
#define SVR4_TLI_TEXT(text) text,
    static const char* const texts[] = {SVR4_TLI_TEXTS(SVR4_TLI_TEXT)};
    static_assert(std::size(texts) == TPROTO + 1, "a text for every code");
    if (errnum >= 0 && errnum <= TPROTO)
        return texts[errnum];
    static char unknown[32];
    snprintf(unknown, sizeof unknown, "%d: error unknown", errnum);
    return unknown;
}

} // namespace svr4
