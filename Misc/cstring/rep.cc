#include "Misc/cstring.h"

#include <cstring>
#include <new>
#include <ostream>

#include "Misc/cstring/room.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/text.h"

using zeloo::NewRoom;

[[maybe_unused]] static const char* ModuleId() { return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

CStringRep::CStringRep() : count(1), rep(NewRoom(0)), len(0)
{
    if (rep != nullptr)
        rep[0] = '\0';
}

CStringRep::CStringRep(const char* s) : count(1), rep(nullptr), len(0)
{
    const uint64_t n = std::strlen(s);
    rep = NewRoom(n);
    if (rep == nullptr)
        return;
    std::memcpy(rep, s, n + 1);
    len = static_cast<uint32_t>(n);
}

CStringRep::CStringRep(char** p) : count(1), rep(*p), len(static_cast<uint32_t>(std::strlen(*p))) { *p = nullptr; }

CStringRep::CStringRep(const CStringRep& r)
    : count(0), rep(r.rep != nullptr ? NewRoom(r.len) : nullptr), len(rep != nullptr ? r.len : 0)
{
    if (rep != nullptr)
        std::memcpy(rep, r.rep, len + uint64_t{1});
}

CStringRep::CStringRep(unsigned n) : count(0), rep(NewRoom(n)), len(rep != nullptr ? n : 0)
{
    if (rep != nullptr)
        rep[len] = '\0';
}

CStringRep::~CStringRep() { delete[] rep; }

CStringRep* CStringRep::clone(int copy)
{
    if (count < 2)
        return this;
    CStringRep* t = copy ? new (std::nothrow) CStringRep(*this) : new (std::nothrow) CStringRep(len);
    if (t != nullptr && t->rep == nullptr) {
        delete t;
        t = nullptr;
    }
    ZELOO_REQUIRE(t != NULL, "Misc/cstring");
    t->count = 1;
    return t;
}

void CStringRep::dumpOn(std::ostream& os) const
{
    os << "CStringRep::dumpOn() " << std::endl;
    os << "count <" << count << "> rep <" << zeloo::TextOrEmpty(rep) << "> " << std::endl;
}
