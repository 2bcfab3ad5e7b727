#include "svr4/tli.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "svr4/tli/endpoint.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4::tli {

int GetAddress(const Provider& provider, const struct netbuf& from, Address* address)
{
    if (from.buf == nullptr || from.len < provider.addressLength || from.len > sizeof address->storage)
        return Fail(TBADADDR);
    *address = {};
    address->length = provider.addressLength;
    memcpy(&address->storage, from.buf, address->length);
    return address->storage.ss_family == provider.family ? 0 : Fail(TBADADDR);
}

int PutAddress(const Address& address, struct netbuf* to)
{
    to->len = 0;
    if (to->maxlen == 0)
        return 0;
    if (to->maxlen < address.length)
        return Fail(TBUFOVFLW);
    if (to->buf == nullptr)
        return FailSystem(EFAULT);
    memcpy(to->buf, &address.storage, address.length);
    to->len = address.length;
    return 0;
}

} // namespace svr4::tli

namespace svr4 {

using namespace tli;

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

} // namespace svr4
