#include "Misc/cstring.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/filestream.h"
#include "Misc/detail/immortal.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"

using zeloo::NewRoom;
using zeloo::TextOrEmpty;

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
    os << "count <" << count << "> rep <" << TextOrEmpty(rep) << "> " << std::endl;
}

ZEListream& CString::ObjectRead(ZEListream& s) { return scanFrom(s), s; }

ZELostream& CString::ObjectWrite(ZELostream& s) const { return printOn(s), s; }

void CString::scanFrom(ZEListream& s)
{
    *this = "";
    unsigned short expected = 0; // what a length that does not parse leaves
    s.get(expected);
    if (expected == 0)
        return;
    char* text = NewRoom(expected);
    if (text == nullptr)
        return;
    const int got = std::min(std::max(s.read(text, expected), 0), static_cast<int>(expected));
    text[got] = '\0';
    takeOver(text);
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

CStringRep* CString::get_emptyRep()
{
    if (emptyRep == nullptr) {
        emptyRep = new (std::nothrow) CStringRep;
        if (emptyRep != nullptr && emptyRep->rep != nullptr) {
            emptyRep->count = 0;
        } else {
            delete emptyRep;
            emptyRep = &zeloo::Immortal<LastResort>().rep;
        }
    }
    emptyRep->count++;
    return emptyRep;
}

// A representation of the `n` characters at `s`, the empty one when there are none or memory fails.
CStringRep* CString::newRep(const char* s, uint64_t n)
{
    char* text = n == 0 ? nullptr : NewRoom(n);
    if (text == nullptr)
        return get_emptyRep();
    std::memcpy(text, s, n);
    text[n] = '\0';
    CStringRep* r = new (std::nothrow) CStringRep(&text);
    delete[] text; // null unless memory failed
    return r != nullptr ? r : get_emptyRep();
}

void CString::delete_cp()
{
    if (--cp->count < 1) {
        if (cp == emptyRep)
            emptyRep = nullptr;
        delete cp;
    }
    cp = nullptr;
}

// Makes `text`, a new[] block, the text of this string. Without memory the string stays as it is.
void CString::takeOver(char* text)
{
    CStringRep* r = new (std::nothrow) CStringRep(&text);
    delete[] text; // null unless memory failed
    if (r == nullptr)
        return;
    delete_cp();
    cp = r;
}

CString::~CString() { delete_cp(); }

CString::CString() : cp(get_emptyRep()) {}

CString::CString(const char* s) : cp(newRep(s, std::strlen(TextOrEmpty(s)))) {}

CString::CString(const char* s, unsigned n) : cp(newRep(s, strnlen(TextOrEmpty(s), n))) {}

CString::CString(const Buffer& b) : cp(nullptr)
{
    const char* data = static_cast<const char*>(b.operator const void*());
    cp = newRep(data, strnlen(TextOrEmpty(data), b.Size()));
}

CString::CString(const CString& s) : cp(s.cp)
{
    if (cp == nullptr)
        cp = get_emptyRep();
    else
        cp->count++;
}

CString& CString::operator=(const char* s)
{
    CStringRep* r = newRep(s, std::strlen(TextOrEmpty(s))); // first: `s` may lie in the text to be released
    delete_cp();
    cp = r;
    return *this;
}

CString& CString::operator=(const CString& s)
{
    CStringRep* r = s.cp;
    r->count++; // first: it may be this string's own
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
    if (s != nullptr && *s != '\0')
        splice(cp->len, 0, s, std::strlen(s));
    return *this;
}

CString& CString::operator+=(const CString& s)
{
    if (s.cp->len != 0)
        splice(cp->len, 0, s.cp->rep, s.cp->len);
    return *this;
}

CString& CString::operator+=(const char& c)
{
    splice(cp->len, 0, &c, 1);
    return *this;
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
