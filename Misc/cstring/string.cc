// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/cstring.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/cstring/make.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/filestream.h"
#include "Misc/detail/immortal.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"

using zeloo::NewRoom;
using zeloo::TextOrEmpty;

[[maybe_unused]] static const char* ModuleId() { return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

CStringRep::CStringRep() : count(1), rep(NewRoom(0)), len(0), ownsRep(true), isOpen(true)
{
    if (rep != nullptr)
        rep[0] = '\0';
}

CStringRep::CStringRep(const char* s) : count(1), rep(nullptr), len(0), ownsRep(true), isOpen(true)
{
    const uint64_t n = std::strlen(s);
    rep = NewRoom(n);
    if (rep == nullptr)
        return;
    std::memcpy(rep, s, n + 1);
    len = static_cast<uint32_t>(n);
}

CStringRep::CStringRep(char** p)
    : count(1), rep(*p), len(static_cast<uint32_t>(std::strlen(*p))), ownsRep(true), isOpen(true)
{
    *p = nullptr;
}

CStringRep::CStringRep(const CStringRep& r)
    : count(0), rep(r.rep != nullptr ? NewRoom(r.len) : nullptr), len(rep != nullptr ? r.len : 0), ownsRep(true),
      isOpen(true)
{
    if (rep != nullptr)
        std::memcpy(rep, r.rep, len + uint64_t{1});
}

CStringRep::CStringRep(unsigned n) : count(0), rep(NewRoom(n)), len(rep != nullptr ? n : 0), ownsRep(true), isOpen(true)
{
    if (rep != nullptr)
        rep[len] = '\0';
}

CStringRep::~CStringRep()
{
    if (ownsRep)
        delete[] rep;
}

CStringRep* CStringRep::makeLong(uint64_t n)
{
    char* text = NewRoom(n);
    if (text == nullptr)
        return nullptr;
    text[n] = '\0';
    CStringRep* r = new (std::nothrow) CStringRep(text, static_cast<uint32_t>(n), true);
    if (r == nullptr)
        delete[] text;
    return r;
}

CStringRep* CStringRep::clone(int copy)
{
    if (count < 2)
        return this;
    CStringRep* t = make(len);
    ZELOO_REQUIRE(t != NULL, "Misc/cstring");
    t->isOpen = isOpen;
    if (copy)
        std::memcpy(t->rep, rep, len + std::size_t{1});
    return t;
}

void CStringRep::dumpOn(std::ostream& os) const
{
    os << "CStringRep::dumpOn() " << std::endl;
    os << "count <" << count << "> rep <" << TextOrEmpty(rep) << "> " << std::endl;
}

ZEListream& CString::ObjectRead(ZEListream& s) { return scanFrom(s), s; }

ZELostream& CString::ObjectWrite(ZELostream& s) const { return printOn(s), s; }

void CString::scanFrom(ZEListream& s)
{
    unsigned short expected = 0; // what a length that does not parse leaves
    s.get(expected);
    CStringRep* r = expected != 0 ? CStringRep::make(expected) : nullptr;
    if (r == nullptr) {
        *this = "";
        return;
    }
    const int got = std::min(std::max(s.read(r->rep, expected), 0), static_cast<int>(expected));
    r->rep[got] = '\0';
    adopt(r);
    if (got < expected) {
        std::cout << "Error: short read in Cstring scanFrom. read: " << got << " expected: " << expected << std::endl;
        s.SetReadErrorFlag();
    }
}

void CString::printOn(ZELostream& s) const
{
    const unsigned short n = static_cast<unsigned short>(cp->len);
    if (n != cp->len) {
        std::cout << "Warning: data will be truncated in Cstring printOn. " << std::endl;
        std::cout << "writing " << n << " of " << cp->len << " bytes." << std::endl;
    }
    s.put(n);
    s.write(cp->rep, n);
}

// Constant-initialised: strings of any unit may be made before main and destroyed after it.
CStringRep* CString::emptyRep = nullptr;

namespace {

// The empty representation when there is no memory even for that. The count that it starts with is no string's, so that
// it is never freed.
struct LastResort {
    char text[1] = "";
    char* block = text;
    CStringRep rep{&block};
};

} // namespace

// The empty representation, made when there is none. The caller counts as its user only when it says so.
CStringRep* CString::sharedEmpty()
{
    if (emptyRep == nullptr) {
        emptyRep = CStringRep::make(0);
        if (emptyRep != nullptr)
            emptyRep->count = 0;
        else
            emptyRep = &zeloo::Immortal<LastResort>().rep;
    }
    return emptyRep;
}

CStringRep* CString::get_emptyRep()
{
    CStringRep* r = sharedEmpty();
    r->count++;
    return r;
}

// A representation of the `n` characters at `s`, none of them 0; the empty one when there are none or memory fails.
CStringRep* CString::newRep(const char* s, uint64_t n)
{
    CStringRep* r = n == 0 ? nullptr : CStringRep::make(n);
    if (r == nullptr)
        return get_emptyRep();
    std::memcpy(r->rep, s, n);
    return r;
}

// Frees a representation that nobody uses.
void CString::drop(CStringRep* r)
{
    if (r == emptyRep)
        emptyRep = nullptr;
    delete r;
}

// The number of characters before the first zero byte, of which there is none where nobody could have written it.
uint32_t CString::wholeLength() const
{
    return cp->isOpen ? static_cast<uint32_t>(strnlen(cp->rep, cp->len)) : cp->len;
}

// Makes the text of `r` that of this string: this one's, of length `before`, with `added` characters behind it.
void CString::settle(CStringRep* r, uint32_t before, uint64_t added)
{
    const uint32_t whole = wholeLength();
    r->len = whole < before ? whole : before + static_cast<uint32_t>(added);
    delete_cp();
    cp = r;
}

// Makes the text of `r`, which ends at its first zero byte, that of this string.
void CString::adopt(CStringRep* r)
{
    r->len = static_cast<uint32_t>(strnlen(r->rep, r->len));
    delete_cp();
    cp = r;
}

CString::CString() : cp(get_emptyRep()) {}

CString::CString(const char* s) : cp(newRep(s, std::strlen(TextOrEmpty(s)))) {}

CString::CString(const char* s, unsigned n) : cp(newRep(s, strnlen(TextOrEmpty(s), n))) {}

CString::CString(const Buffer& b) : cp(nullptr)
{
    const char* data = static_cast<const char*>(b.operator const void*());
    cp = newRep(data, strnlen(TextOrEmpty(data), b.Size()));
}

CString& CString::operator=(const char* s)
{
    CStringRep* r = newRep(s, std::strlen(TextOrEmpty(s))); // first: `s` may lie in the text to be released
    delete_cp();
    cp = r;
    return *this;
}

CString& CString::operator=(const Buffer& b) { return *this = CString(b); }

bool CString::operator==(const CString& s) const
{
    return cp == s.cp || (cp->len == s.cp->len && std::strcmp(cp->rep, s.cp->rep) == 0);
}

bool CString::operator==(const char* s) const { return order(cp->rep, s) == 0; }

int CString::compare(const CString** a, const CString** b)
{
    ZELOO_REQUIRE(a != NULL, "Misc/cstring");
    ZELOO_REQUIRE(*a != NULL, "Misc/cstring");
    ZELOO_REQUIRE(b != NULL, "Misc/cstring");
    ZELOO_REQUIRE(*b != NULL, "Misc/cstring");
    return std::strcmp(**a, **b);
}

CString CString::operator+(const CString& s) const
{
    if (cp->len == 0 && s.cp->len != 0)
        return s;
    CString sum(*this);
    sum += s;
    return sum;
}

CString& CString::operator+=(const char* s)
{
    const std::size_t n = std::strlen(TextOrEmpty(s));
    if (n != 0)
        append(s, n, n);
    return *this;
}

CString& CString::operator+=(const CString& s)
{
    if (s.cp->len != 0)
        append(s.cp->rep, s.cp->len, s.wholeLength());
    return *this;
}

CString& CString::operator+=(const char& c)
{
    const uint32_t before = cp->len;
    CStringRep* r = CStringRep::make(uint64_t{before} + 1);
    if (r == nullptr)
        return *this;
    std::memcpy(r->rep, cp->rep, before);
    r->rep[before] = c;
    settle(r, before, c != '\0');
    return *this;
}

// Appends the `n` characters at `s`, which may lie in the text; `whole` of them stand before the first zero byte.
void CString::append(const char* s, uint64_t n, uint64_t whole)
{
    const uint32_t before = cp->len;
    CStringRep* r = CStringRep::make(before + n);
    if (r == nullptr)
        return;
    std::memcpy(r->rep, cp->rep, before);
    std::memcpy(r->rep + before, s, n);
    settle(r, before, whole);
}

char* CString::EncloseWithQuotes(const char* s)
{
    char* text = NewRoom(uint64_t{std::strlen(s)} + 2);
    if (text != nullptr)
        stpcpy(stpcpy(stpcpy(text, "\""), s), "\"");
    return text;
}

char* CString::FileNameToCharPtr(const char* filename)
{
    zeloo::InputFile in(filename);
    if (!in.is_open())
        return nullptr;
    const std::streamoff size = in.Size();
    char* text = size < 0 ? nullptr : NewRoom(static_cast<uint64_t>(size));
    if (text == nullptr)
        return nullptr;
    in.read(text, size);
    text[in.gcount()] = '\0';
    return text;
}

void CString::dumpOn(std::ostream& os) const
{
    if (cp != nullptr)
        cp->dumpOn(os);
    else
        std::cout << "cp is null" << std::endl; // not to `os`: intended
}
