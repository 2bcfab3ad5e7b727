#include "Misc/cstring.h"

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/text.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <iostream>
#include <new>

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

// Room for a text of `n` characters, or null: lengths are kept in 32 bits, and computed in 64.
static char* newText(uint64_t n)
{
    return n < UINT32_MAX ? new (std::nothrow) char[static_cast<size_t>(n) + 1] : nullptr;
}

static uint64_t escapedLength(const char* s, short mode);

static int characterAt(const char* s)
{
    return static_cast<unsigned char>(*s);
}

// Representation

CStringRep::CStringRep() : count(1), rep(newText(0)), len(0)
{
    if (rep != nullptr)
        rep[0] = '\0';
}

CStringRep::CStringRep(const char* s) : count(1), rep(nullptr), len(0)
{
    const uint64_t n = std::strlen(s);
    rep = newText(n);
    if (rep == nullptr)
        return;
    std::memcpy(rep, s, n + 1);
    len = static_cast<uint32_t>(n);
}

CStringRep::CStringRep(char** p) : count(1), rep(*p), len(static_cast<uint32_t>(std::strlen(*p)))
{
    *p = nullptr;
}

CStringRep::CStringRep(const CStringRep& r) : count(0), rep(r.rep == nullptr ? nullptr : newText(r.len)), len(r.len)
{
    if (rep != nullptr)
        std::memcpy(rep, r.rep, len + uint64_t{1});
    else
        len = 0;
}

CStringRep::CStringRep(unsigned n) : count(0), rep(newText(n)), len(n)
{
    if (rep != nullptr)
        rep[len] = '\0';
    else
        len = 0;
}

CStringRep::~CStringRep()
{
    delete[] rep;
}

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

// Object streams

ZEListream& CString::ObjectRead(ZEListream& s)
{
    scanFrom(s);
    return s;
}

ZELostream& CString::ObjectWrite(ZELostream& s) const
{
    printOn(s);
    return s;
}

void CString::scanFrom(ZEListream& s)
{
    *this = "";
    unsigned short expected = 0; // what a length that does not parse leaves
    s.get(expected);
    if (expected == 0)
        return;
    char* text = newText(expected);
    if (text == nullptr)
        return;
    const int got = std::min(std::max(s.read(text, expected), 0), static_cast<int>(expected));
    text[got] = '\0';
    takeOver(text);
    if (got < expected) {
        std::cout << "Error: short read in Cstring scanFrom. " << std::endl;
        std::cout << "read: " << got << " expected: " << expected << std::endl;
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

// Construction, assignment and release

// Constant-initialised: strings of any unit may be made before main and destroyed after it.
CStringRep* CString::emptyRep = nullptr;

// The empty representation when there is no memory even for that. It counts a use of its own, so that it is never
// freed.
static CStringRep* lastResort()
{
    static char text[1];
    alignas(CStringRep) static char block[sizeof(CStringRep)];
    text[0] = '\0';
    char* p = text;
    return new (block) CStringRep(&p);
}

CStringRep* CString::get_emptyRep()
{
    if (emptyRep == nullptr) {
        emptyRep = new (std::nothrow) CStringRep;
        if (emptyRep != nullptr && emptyRep->rep != nullptr) {
            emptyRep->count = 0;
        } else {
            delete emptyRep;
            emptyRep = lastResort();
        }
    }
    emptyRep->count++;
    return emptyRep;
}

// A representation of the `n` characters at `s`, the empty one when there are none or memory fails.
CStringRep* CString::newRep(const char* s, uint64_t n)
{
    char* text = n == 0 ? nullptr : newText(n);
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
    if (r == nullptr) {
        delete[] text;
        return;
    }
    delete_cp();
    cp = r;
}

CString::~CString()
{
    delete_cp();
}

CString::CString() : cp(get_emptyRep())
{
}

CString::CString(const char* s) : cp(newRep(s, std::strlen(zeloo::TextOrEmpty(s))))
{
}

CString::CString(const char* s, unsigned n) : cp(newRep(s, strnlen(zeloo::TextOrEmpty(s), n)))
{
}

CString::CString(const Buffer& b) : cp(nullptr)
{
    const char* data = static_cast<const char*>(b.operator const void*());
    cp = newRep(data, strnlen(zeloo::TextOrEmpty(data), b.Size()));
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
    CStringRep* r = newRep(s, std::strlen(zeloo::TextOrEmpty(s))); // first: `s` may lie in the text to be released
    delete_cp();
    cp = r;
    return *this;
}

CString& CString::operator=(const CString& s)
{
    if (s.cp == cp)
        return *this;
    CStringRep* r = s.cp;
    r->count++;
    delete_cp();
    cp = r;
    return *this;
}

// Access

unsigned CString::strlen() const
{
    return cp->len;
}

CString::operator const char*() const
{
    return cp->rep;
}

char& CString::operator[](unsigned i) const
{
    return cp->rep[i];
}

// Comparison

bool CString::operator==(const CString& s) const
{
    return cp == s.cp || (cp->len == s.cp->len && std::strcmp(cp->rep, s.cp->rep) == 0);
}

bool CString::operator!=(const CString& s) const
{
    return !(*this == s);
}

bool CString::operator==(const char* s) const
{
    return std::strcmp(cp->rep, s) == 0;
}

bool CString::operator!=(const char* s) const
{
    return !(*this == s);
}

int CString::compare(const CString** a, const CString** b)
{
    ZELOO_REQUIRE(a != NULL, "Misc/cstring");
    ZELOO_REQUIRE(*a != NULL, "Misc/cstring");
    ZELOO_REQUIRE(b != NULL, "Misc/cstring");
    ZELOO_REQUIRE(*b != NULL, "Misc/cstring");
    return std::strcmp(**a, **b);
}

// Concatenation

CString CString::operator+(const CString& s) const
{
    if (cp->len == 0 && s.cp->len != 0)
        return s;
    CString sum(*this);
    sum += s;
    return sum;
}

CString CString::operator+(const char* s) const
{
    return *this + CString(s);
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

// Editing

// Replaces the `removed` characters at `pos` by the `n` characters at `s`, in a new text. REQUIRES: `pos` + `removed`
// is at most the length.
void CString::splice(unsigned pos, unsigned removed, const char* s, uint64_t n)
{
    const uint64_t rest = cp->len - pos - removed;
    char* text = newText(pos + n + rest);
    if (text == nullptr)
        return;
    std::memcpy(text, cp->rep, pos);
    std::memcpy(text + pos, s, n);
    std::memcpy(text + pos + n, cp->rep + pos + removed, rest);
    text[pos + n + rest] = '\0';
    takeOver(text);
}

void CString::Delete(unsigned pos, unsigned n)
{
    if (pos < cp->len && n != 0)
        splice(pos, std::min(n, cp->len - pos), "", 0);
}

void CString::Insert(unsigned pos, const CString& s)
{
    if (pos <= cp->len && s.cp->len != 0)
        splice(pos, 0, s.cp->rep, s.cp->len);
}

void CString::Insert(unsigned pos, const char* s)
{
    if (pos <= cp->len && s != nullptr)
        splice(pos, 0, s, std::strlen(s));
}

void CString::Insert(unsigned pos, char c)
{
    const char text[2] = {c, '\0'};
    Insert(pos, text);
}

void CString::ReplaceAll(char c, const char* s)
{
    const char* const end = cp->rep + cp->len;
    const uint64_t found = static_cast<uint64_t>(std::count(static_cast<const char*>(cp->rep), end, c));
    if (s == nullptr || found == 0)
        return;
    const uint64_t n = std::strlen(s);
    char* text = newText(cp->len + found * n);
    if (text == nullptr)
        return;
    char* to = text;
    for (const char* from = cp->rep; from != end; from++) {
        if (*from == c)
            to = std::copy(s, s + n, to);
        else
            *to++ = *from;
    }
    *to = '\0';
    takeOver(text);
}

void CString::lTrim()
{
    unsigned n = 0;
    while (n < cp->len && std::isspace(characterAt(cp->rep + n)))
        n++;
    Delete(0, n);
}

void CString::rTrim()
{
    unsigned n = cp->len;
    while (n > 0 && std::isspace(characterAt(cp->rep + n - 1)))
        n--;
    Delete(n, cp->len - n);
}

// Puts every character through `conversion`, in place when the text is this string's alone.
void CString::convert(int copy, int (*conversion)(int))
{
    CStringRep* to = cp->clone(copy);
    for (uint32_t i = 0; i < cp->len; i++)
        to->rep[i] = static_cast<char>(conversion(characterAt(cp->rep + i)));
    if (to != cp) {
        delete_cp();
        cp = to;
    }
}

void CString::toUpper()
{
    convert(0, [](int c) { return std::toupper(c); });
}

void CString::toLower()
{
    convert(0, [](int c) { return std::tolower(c); });
}

void CString::flatten()
{
    convert(1, [](int c) { return std::isprint(c) ? c : ' '; });
}

void CString::makeprintable()
{
    convert(1, [](int c) { return std::isprint(c) || c == '\t' || c == '\n' ? c : ' '; });
}

void CString::toDos()
{
    const auto needsReturn = [this](uint32_t i) { return cp->rep[i] == '\n' && (i == 0 || cp->rep[i - 1] != '\r'); };
    uint64_t n = cp->len;
    for (uint32_t i = 0; i < cp->len; i++)
        n += needsReturn(i);
    char* text = newText(n);
    if (text == nullptr)
        return;
    char* to = text;
    for (uint32_t i = 0; i < cp->len; i++) {
        if (needsReturn(i))
            *to++ = '\r';
        *to++ = cp->rep[i];
    }
    *to = '\0';
    takeOver(text);
}

void CString::toUnix()
{
    const auto isDropped = [this](uint32_t i) { // the text ends in a terminator, so that i + 1 is there
        return cp->rep[i] == '\r' && cp->rep[i + 1] == '\n';
    };
    uint64_t n = cp->len;
    for (uint32_t i = 0; i < cp->len; i++)
        n -= isDropped(i);
    char* text = newText(n);
    if (text == nullptr)
        return;
    char* to = text;
    for (uint32_t i = 0; i < cp->len; i++)
        if (!isDropped(i))
            *to++ = cp->rep[i];
    *to = '\0';
    takeOver(text);
}

void CString::toEscape(short mode)
{
    if (cp->len == 0)
        return;
    char* text = newText(escapedLength(cp->rep, mode));
    if (text != nullptr)
        takeOver(literal_to_escape(text, cp->rep, mode));
}

void CString::toLiteral()
{
    if (cp->len == 0)
        return;
    char* text = newText(cp->len);
    if (text != nullptr)
        takeOver(escape_to_literal(text, cp->rep));
}

void CString::ExtractToken(CString& token, const char* delimiters)
{
    CString set(delimiters); // a copy: the delimiters may be the text of `token`
    token = "";
    if (cp->rep[0] == '"') {
        set = "\"";
        Delete(0, 1);
    }
    if (cp->rep[0] == '\'') {
        set = "'";
        Delete(0, 1);
    }
    const char* start = cp->rep + std::strspn(cp->rep, set);
    if (*start == '\0')
        return;
    token = CString(start, static_cast<unsigned>(std::strcspn(start, set)));
    Delete(0, token.strlen() + 1); // not counting the delimiters skipped: intended
}

int CString::find_awk_chars() const
{
    return std::strpbrk(cp->rep, ".^") != nullptr;
}

// Operations on C strings

char* CString::EncloseWithQuotes(const char* s)
{
    const uint64_t n = std::strlen(s);
    char* text = newText(n + 2);
    if (text == nullptr)
        return nullptr;
    text[0] = '"';
    std::memcpy(text + 1, s, n);
    text[n + 1] = '"';
    text[n + 2] = '\0';
    return text;
}

char* CString::FileNameToCharPtr(const char* filename)
{
    std::ifstream in(filename, std::ios::in | std::ios::binary);
    if (!in.is_open())
        return nullptr;
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    char* text = size < 0 ? nullptr : newText(static_cast<uint64_t>(size));
    if (text == nullptr)
        return nullptr;
    in.read(text, size);
    text[in.gcount()] = '\0';
    return text;
}

// The letters of the control characters 8 to 13 behind a backslash.
static const char ControlLetters[] = "btnvfr";

// The number of characters that stand for `c` in the escaped form: 1, 2 or 4.
static unsigned escapedLength(int c, short mode)
{
    if ((c >= '\b' && c <= '\r') || std::strchr("'\"\\", c) != nullptr)
        return 2;
    if (std::strchr("!$?[]|/()*+", c) != nullptr)
        return mode == 0 ? 2 : 1;
    return std::isprint(c) ? 1 : 4;
}

static uint64_t escapedLength(const char* s, short mode)
{
    uint64_t n = 0;
    for (; *s != '\0'; s++)
        n += escapedLength(characterAt(s), mode);
    return n;
}

unsigned CString::literal_to_escape_strlen(const char* s, short mode)
{
    return static_cast<unsigned>(escapedLength(s, mode));
}

char* CString::literal_to_escape(char* dst, const char* src, short mode)
{
    char* to = dst;
    for (; *src != '\0'; src++) {
        const int c = characterAt(src);
        const unsigned n = escapedLength(c, mode);
        if (n > 1)
            *to++ = '\\';
        if (n == 4) {
            *to++ = static_cast<char>('0' + (c >> 6));
            *to++ = static_cast<char>('0' + (c >> 3 & 7));
            *to++ = static_cast<char>('0' + (c & 7));
        } else if (c >= '\b' && c <= '\r') {
            *to++ = ControlLetters[c - '\b'];
        } else {
            *to++ = *src;
        }
    }
    *to = '\0';
    return dst;
}

// The value of a digit in `base` 8 or 16, or -1.
static int digitValue(char c, int base)
{
    static const char digits[] = "0123456789abcdef";
    const char* at = c == '\0' ? nullptr : std::strchr(digits, std::tolower(characterAt(&c)));
    return at != nullptr && at - digits < base ? static_cast<int>(at - digits) : -1;
}

// Reads at most `most` digits, moves `src` behind them and gives the byte that they stand for.
static char numericEscape(const char*& src, int base, int most)
{
    int value = 0;
    for (; most > 0 && digitValue(*src, base) >= 0; most--)
        value = value * base + digitValue(*src++, base);
    return static_cast<char>(value);
}

// Reads what follows a backslash, moves `src` behind it and gives the character that it stands for.
static char escapedCharacter(const char*& src)
{
    if (digitValue(*src, 8) >= 0)
        return numericEscape(src, 8, 3);
    const char c = *src++;
    if (c == 'x')
        return digitValue(*src, 16) < 0 ? 'x' : numericEscape(src, 16, 2);
    if (const char* letter = std::strchr(ControlLetters, c))
        return static_cast<char>('\b' + (letter - ControlLetters));
    return c;
}

char* CString::escape_to_literal(char* dst, const char* src)
{
    char* to = dst;
    while (*src != '\0') {
        if (*src != '\\')
            *to++ = *src++;
        else if (*++src != '\0')
            *to++ = escapedCharacter(src);
    }
    *to = '\0';
    return dst;
}

void CString::dumpOn(std::ostream& os) const
{
    if (cp != nullptr)
        cp->dumpOn(os);
    else
        std::cout << "cp is null" << std::endl; // not to `os`: intended
}

// CStringIter

CStringIter::CStringIter(CString& t, char delim) : sourceText(t), method(0), count(0), pos(0), done(0), delimiter(delim)
{
    pos = setupLine(0);
}

CStringIter::CStringIter(CString& t, int len)
    : sourceText(t), method(1), count(std::max(len, 1)), pos(0), done(0), delimiter('\0')
{
    pos = setupLine(0);
}

CStringIter::~CStringIter()
{
}

unsigned CStringIter::setupLine(unsigned position)
{
    if (done || position >= sourceText.strlen()) {
        done = 1;
        return 0;
    }
    const unsigned start = sourceText[position] == '\n' ? position + 1 : position;
    const unsigned end = method == 1 ? endOfLine(start) : endOfField(start);
    line = CString(static_cast<const char*>(sourceText) + start, end - start);
    // A delimiter is skipped here; a line feed is skipped at the start of the next line.
    return method == 0 && end < sourceText.strlen() ? end + 1 : end;
}

unsigned CStringIter::endOfLine(unsigned start) const
{
    const unsigned rest = sourceText.strlen() - start;
    const unsigned longest = static_cast<unsigned>(count);
    const char* from = static_cast<const char*>(sourceText) + start;
    const void* feed = std::memchr(from, '\n', std::min<uint64_t>(rest, longest + uint64_t{1}));
    if (feed != nullptr)
        return start + static_cast<unsigned>(static_cast<const char*>(feed) - from);
    return start + std::min(rest, longest);
}

unsigned CStringIter::endOfField(unsigned start) const
{
    const unsigned rest = sourceText.strlen() - start;
    const char* from = static_cast<const char*>(sourceText) + start;
    const void* at = std::memchr(from, delimiter, rest);
    return at == nullptr ? start + rest : start + static_cast<unsigned>(static_cast<const char*>(at) - from);
}

CStringIter::operator const CString&() const
{
    return line;
}

int CStringIter::operator()() const
{
    return !done;
}

void CStringIter::operator++()
{
    pos = setupLine(pos);
}

// CStringBuff

CStringBuff::CStringBuff(int size)
    : BuffSize(std::max(size, 1)), Buff(newText(static_cast<uint64_t>(BuffSize))), Index(0)
{
    ResetBuff();
}

CStringBuff::~CStringBuff()
{
    delete[] Buff;
}

void CStringBuff::ResetBuff()
{
    Index = 0;
    if (Buff != nullptr)
        Buff[0] = '\0';
}

CStringBuff& CStringBuff::operator=(const CString& s)
{
    ResetBuff();
    FinalString = s;
    return *this;
}

CStringBuff& CStringBuff::operator=(char c)
{
    ResetBuff();
    FinalString = CString(&c, 1);
    return *this;
}

CStringBuff& CStringBuff::operator+=(char c)
{
    if (Buff == nullptr) {
        FinalString += c;
        return *this;
    }
    if (Index == BuffSize) {
        Index = 0;
        FinalString += Buff;
    }
    Buff[Index++] = c;
    Buff[Index] = '\0';
    return *this;
}

CStringBuff& CStringBuff::operator+=(const CString& s)
{
    for (unsigned i = 0; i < s.strlen(); i++)
        *this += s[i];
    return *this;
}

CString CStringBuff::GetCString() const
{
    return FinalString + Buff;
}

void CStringBuff::dumpOn(std::ostream& os) const
{
    os << "CStringChBuff::dumOn" << std::endl; // misspelt: intended
    os << "BuffSize = " << BuffSize << std::endl;
    os << "Buff = " << zeloo::TextOrEmpty(Buff) << std::endl;
    os << "Index = " << Index << std::endl;
    os << "FinalString = " << static_cast<const char*>(FinalString) << std::endl;
}
