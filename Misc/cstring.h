// SPDX-License-Identifier: BSD-2-Clause
// Reference-counted strings, a line iterator over them and a chunked appender.
#ifndef MISC_CSTRING_H
#define MISC_CSTRING_H

#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <type_traits>

#include "Misc/export.h"

class Buffer;
class ZEListream;
class ZELostream;

/// The text that one or several CStrings share. Only CString makes and sees one.
struct ZELOO_API CStringRep {
    int32_t count; ///< The CStrings that share this text.
    char* rep;     ///< `len` + 1 characters, terminated; null only when memory failed in a constructor.
    uint32_t len;  ///< The length of the text when the representation was made.

    /// The empty text, with a count of 1.
    CStringRep();
    /// A copy of `s`, with a count of 1. Without memory for it `rep` is null and `len` 0.
    CStringRep(const char* s);
    /// Takes over the text `*p`, a new[] block, and sets `*p` to null; the count is 1.
    CStringRep(char** p);
    /// A copy of the text of `r`. The caller sets the count. Without memory `rep` is null and `len` 0.
    CStringRep(const CStringRep& r);
    /// Room for a text of `n` characters, terminated at `n` but not filled. The caller sets the count. Without
    /// memory `rep` is null and `len` 0.
    CStringRep(unsigned n);
    /// Releases the text, when it has a block of its own.
    ~CStringRep();

    /// Releases the block of a representation, which may hold its text too.
    // NOLINTNEXTLINE(misc-new-delete-overloads): the host's `new` made it, but of a size that only the block knows
    static void operator delete(void* block) { ::operator delete(block); }

    /// A representation that one string may write to: this one while it has no second user; otherwise a new one
    /// with a count of 1, holding a copy of the text (`copy` non-zero) or unfilled room of the same length (`copy`
    /// 0). The count of this one is not lowered. Stops the process when memory fails.
    CStringRep* clone(int copy);

    /// Writes a title line and a line with the count and the text.
    void dumpOn(std::ostream& os) const;

    CStringRep& operator=(const CStringRep&) = delete;

private:
    friend class CString;
    // A representation with a count of 1 and room for a text of `n` characters, terminated at `n` but not filled; but for
    // long texts it is one block. Null without memory, or for an `n` that does not fit 32 bits.
    static CStringRep* make(uint64_t n);
    static CStringRep* makeLong(uint64_t n);
    CStringRep(char* text, uint32_t n, bool owns) : count(1), rep(text), len(n), ownsRep(owns), isOpen(false) {}

    bool ownsRep; // the text has a block of its own, which is deleted with the representation
    bool isOpen;  // somebody may have written to a character, a zero byte too
};

/// A text of up to 4,294,967,294 characters. Copying shares the text; every change makes a text of its own for the
/// changed string and leaves the others alone. There is no spare capacity: each append costs the whole length (see
/// CStringBuff). A string always has a text; all empty ones made as such share one.
///
/// Positions and lengths count characters from 0. The editing operations work on the stored length, so that a zero
/// byte written through operator[] is a character to them; the length of what they build ends at the first zero
/// byte. Where memory fails, a constructor or assignment gives the empty string and an edit changes nothing.
///
/// Texts passed as `const char*` may lie within the string itself. Strings are not for use by several threads.
class ZELOO_API CString {
public:
    /// Calls scanFrom, or what a derived class puts in its place, and returns the stream.
    virtual ZEListream& ObjectRead(ZEListream& s);
    /// Calls printOn, or what a derived class puts in its place, and returns the stream.
    virtual ZELostream& ObjectWrite(ZELostream& s) const;
    /// Replaces the text by one that printOn wrote. When fewer bytes come than the length announced, says so on
    /// standard output, sets the stream's read error flag and keeps what came. A length that does not parse is 0.
    virtual void scanFrom(ZEListream& s);
    /// Writes the length as an unsigned short, then the characters without a terminator. A text longer than 65,535
    /// characters is cut to its length modulo 65,536, with a warning on standard output.
    virtual void printOn(ZELostream& s) const;
    /// Gives up the text, which goes with its last string.
    virtual ~CString() { delete_cp(); }

    /// The empty string.
    CString();
    /// A copy of `s`; the empty string when `s` is null.
    CString(const char* s);
    /// A copy of the first `n` characters of `s`, or of all when `s` is shorter; empty when `s` is null.
    CString(const char* s, unsigned n);
    /// The bytes of `b` up to the first zero byte.
    CString(const Buffer& b);
    /// Shares the text of `s`.
    CString(const CString& s) : cp(s.cp != nullptr ? s.cp : sharedEmpty()) { cp->count++; }
    /// Makes the text a copy of `s`; the empty string when `s` is null.
    CString& operator=(const char* s);
    /// Shares the text of `s`, which may be this string.
    CString& operator=(const CString& s)
    {
        CStringRep* r = s.cp;
        r->count++; // first: it may be this string's own
        delete_cp();
        cp = r;
        return *this;
    }
    /// The bytes of `b` up to the first zero byte.
    CString& operator=(const Buffer& b);

    /// The stored length; costs no scan.
    unsigned strlen() const { return cp->len; }
    /// The text, terminated, never null. It is valid until this string changes or goes, and written to by operator[] only.
    operator const char*() const { return cp->rep; }
    /// The character at `i`, which is not checked against the length. Writing to it changes every string that
    /// shares the text.
    char& operator[](unsigned i) const
    {
        cp->isOpen = true;
        return cp->rep[i];
    }
    /// The same for an index of any integral type, so that none is taken for a subscript of the `const char*`.
    template <class Index, class = std::enable_if_t<std::is_integral_v<Index> || std::is_enum_v<Index>>>
    char& operator[](Index i) const
    {
        return (*this)[static_cast<unsigned>(+i)];
    }

    /// Whether the stored lengths are the same, and the texts up to the first zero byte.
    bool operator==(const CString& s) const;
    /// The opposite of ==.
    bool operator!=(const CString& s) const { return !(*this == s); }
    /// Whether the text is `s`; a null `s` equals no string.
    bool operator==(const char* s) const;
    /// Whether the text is another one than `s`; a null `s` differs from every string.
    bool operator!=(const char* s) const { return !(*this == s); }
    /// The order of texts, as in compare; a null `const char*` equals no string and sorts before all. These are
    /// templates, so that a program that has such an operator of its own goes on using it.
    // clang-format off
    template <class = void> friend bool operator<(const CString& a, const CString& b) { return order(a, b) < 0; }
    /// Whether `a` sorts before `b`; nothing sorts before null.
    template <class = void> friend bool operator<(const CString& a, const char* b) { return order(a, b) < 0; }
    /// Whether `a` sorts before `b`; null does.
    template <class = void> friend bool operator<(const char* a, const CString& b) { return order(a, b) < 0; }
    /// Whether `a` sorts behind `b`.
    template <class = void> friend bool operator>(const CString& a, const CString& b) { return order(a, b) > 0; }
    /// Whether `a` sorts behind `b`; every string sorts behind null.
    template <class = void> friend bool operator>(const CString& a, const char* b) { return order(a, b) > 0; }
    /// Whether `a` sorts behind `b`; null never does.
    template <class = void> friend bool operator>(const char* a, const CString& b) { return order(a, b) > 0; }
    /// Whether `a` sorts before `b` or is the same text.
    template <class = void> friend bool operator<=(const CString& a, const CString& b) { return order(a, b) <= 0; }
    /// Whether `a` sorts before `b` or is the same text; never with null.
    template <class = void> friend bool operator<=(const CString& a, const char* b) { return order(a, b) <= 0; }
    /// Whether `a` sorts before `b` or is the same text; null does.
    template <class = void> friend bool operator<=(const char* a, const CString& b) { return order(a, b) <= 0; }
    /// Whether `a` sorts behind `b` or is the same text.
    template <class = void> friend bool operator>=(const CString& a, const CString& b) { return order(a, b) >= 0; }
    /// Whether `a` sorts behind `b` or is the same text; every string sorts behind null.
    template <class = void> friend bool operator>=(const CString& a, const char* b) { return order(a, b) >= 0; }
    /// Whether `a` sorts behind `b` or is the same text; null never does.
    template <class = void> friend bool operator>=(const char* a, const CString& b) { return order(a, b) >= 0; }
    /// Whether the text of `b` is `a`; null is the text of no string.
    template <class = void> friend bool operator==(const char* a, const CString& b) { return b == a; }
    /// The opposite of ==.
    template <class = void> friend bool operator!=(const char* a, const CString& b) { return b != a; }
    // clang-format on
    /// The comparison function for sorting arrays of CString pointers: the `strcmp` of the two texts. REQUIRES: no
    /// pointer is null.
    static int compare(const CString** a, const CString** b);

    /// A new string: this text with that of `s` behind it.
    CString operator+(const CString& s) const;
    /// A new string: this text with `s` behind it; a null `s` adds nothing.
    CString operator+(const char* s) const { return *this + CString(s); }
    /// A text with the character `c` behind it, or before it. Templates, so that a number is no character: `s + 1` is
    /// the place of the second character, as with every `const char*`.
    template <class Char, class = std::enable_if_t<std::is_same_v<Char, char>>>
    CString operator+(Char c) const
    {
        return CString(*this) += c;
    }
    template <class Char, class = std::enable_if_t<std::is_same_v<Char, char>>>
    friend CString operator+(Char c, const CString& s)
    {
        return CString(&c, 1) + s;
    }
    /// Appends `s`; an empty or null `s` changes nothing.
    CString& operator+=(const char* s);
    /// Appends the text of `s`, which may be this string.
    CString& operator+=(const CString& s);
    /// Appends the character `c`; a zero byte adds nothing.
    CString& operator+=(const char& c);

    /// Removes up to `n` characters from `pos` on. Nothing happens beyond the end.
    void Delete(unsigned pos, unsigned n);
    /// Puts `s` before the character at `pos`; `pos` equal to the length appends. Nothing happens when `pos` is
    /// beyond the end or `s` is empty (as a CString) or null.
    void Insert(unsigned pos, const CString& s);
    /// The same for a C text; nothing happens when it is null.
    void Insert(unsigned pos, const char* s);
    /// Puts the character `c` before the one at `pos`; `pos` equal to the length appends.
    void Insert(unsigned pos, char c);
    /// Replaces every `c` by the text `s`; nothing happens when `s` is null.
    void ReplaceAll(char c, const char* s);
    /// Removes leading white space.
    void lTrim();
    /// Removes trailing white space.
    void rTrim();
    /// Turns small letters into capitals, as the locale's toupper does.
    void toUpper();
    /// Turns capitals into small letters, as the locale's tolower does.
    void toLower();
    /// Turns every character that is not printable into a space, tabs and line feeds included.
    void flatten();
    /// As flatten, but keeps tabs and line feeds.
    void makeprintable();
    /// Puts a carriage return before every line feed that has none.
    void toDos();
    /// Turns every carriage return + line feed into a line feed; a lone carriage return stays.
    void toUnix();
    /// Replaces the text by what literal_to_escape makes of it.
    void toEscape(short mode);
    /// Replaces the text by what escape_to_literal makes of it.
    void toLiteral();
    /// Cuts the first token off this string into `token`, which is empty when there is none. Tokens end at one of
    /// the characters of `delimiters`. A leading quote, double or single, is removed and becomes the only delimiter.
    /// The token's length and one more are cut from the front, although delimiters before the token are skipped
    /// and not counted: this is intended.
    void ExtractToken(CString& token, const char* delimiters);
    /// 1 if the text holds a `.` or a `^`, else 0.
    int find_awk_chars() const;

    /// `s` between double quotes, in a new[] block that the caller owns; null when memory fails. REQUIRES: `s` is
    /// not null.
    static char* EncloseWithQuotes(const char* s);
    /// The content of a file with a terminator, in a new[] block that the caller owns; null when the file cannot be
    /// opened or sized or is a directory, or memory fails.
    static char* FileNameToCharPtr(const char* filename);
    /// The length, without terminator, of what literal_to_escape writes.
    static unsigned literal_to_escape_strlen(const char* s, short mode);
    /// Writes `src` to `dst` with quotes, backslashes, control characters and bytes above 126 escaped by a
    /// backslash, and in mode 0 also the characters ! $ ? [ ] | / ( ) * + of shell and regular expressions. Returns
    /// `dst`, which must hold literal_to_escape_strlen + 1 characters.
    static char* literal_to_escape(char* dst, const char* src, short mode);
    /// Undoes literal_to_escape; also takes octal (`\101`) and hexadecimal (`\x41`) forms. A backslash before another
    /// character is dropped, as is one at the end. Returns `dst`, which is never longer than `src` and may be it.
    static char* escape_to_literal(char* dst, const char* src);

    /// Writes the dump of the shared representation.
    void dumpOn(std::ostream& os) const;

private:
    // The `strcmp` of two texts; null sorts before every text.
    static int order(const char* a, const char* b)
    {
        return a == nullptr || b == nullptr ? (a != nullptr) - (b != nullptr) : std::strcmp(a, b);
    }
    static CStringRep* sharedEmpty();
    static CStringRep* get_emptyRep();
    static CStringRep* newRep(const char* s, uint64_t n);
    static void drop(CStringRep* r);
    void delete_cp()
    {
        if (--cp->count < 1)
            drop(cp);
        cp = nullptr;
    }
    void adopt(CStringRep* r);
    template <class Fill>
    ZELOO_LOCAL void rebuild(uint64_t n, Fill fill);
    uint32_t wholeLength() const;
    void settle(CStringRep* r, uint32_t before, uint64_t added);
    void append(const char* s, uint64_t n, uint64_t whole);
    void splice(unsigned pos, unsigned removed, const char* s, uint64_t n);
    void convert(int copy, int (*conversion)(int));

    CStringRep* cp; // never null between construction and destruction
    static CStringRep* emptyRep;
};

/// Writes the string with its printOn.
inline ZELostream& operator<<(ZELostream& s, const CString& c) { return c.printOn(s), s; }
/// Reads the string with its scanFrom.
inline ZEListream& operator>>(ZEListream& s, CString& c) { return c.scanFrom(s), s; }

/// A walk over the lines or fields of a text, which must outlive it:
///
///     for (CStringIter line(text, 80); line(); ++line)
///         use(line);
class ZELOO_API CStringIter {
public:
    /// Fields separated by `delim`. A line feed at the start of a field is skipped. A delimiter at the very end
    /// starts no further field.
    CStringIter(CString& t, char delim);
    /// Lines that end at a line feed or are cut after `len` characters. A line feed at the very end is followed by
    /// an empty line. A `len` below 1 counts as 1.
    CStringIter(CString& t, int len);
    virtual ~CStringIter() = default;
    /// Makes the line or field that starts at `position` the current one and returns where the next one starts.
    /// At the end of the text the walk is done and the result is 0, then and ever after.
    unsigned setupLine(unsigned position);
    /// The current line or field, without its line feed or delimiter.
    operator const CString&() const { return line; }
    /// 1 while a line is available, else 0.
    int operator()() const { return !done; }
    /// Goes to the next line or field.
    void operator++() { pos = setupLine(pos); }

private:
    unsigned endOf(unsigned start) const;

    const CString& sourceText;
    int32_t method; // 0: fields, 1: lines
    int32_t count;  // the longest line of method 1
    uint32_t pos;   // where the next line starts
    int32_t done;   // the end has been passed
    CString line;   // the current one
    char delimiter; // what ends a line or field
};

/// Collects a text character by character with one string append for `size` characters. Without memory for that append
/// the character that calls for it is left out.
class ZELOO_API CStringBuff {
public:
    /// Appends in chunks of `size` characters; a `size` below 1 counts as 1.
    explicit CStringBuff(int size);
    virtual ~CStringBuff();
    /// Empties the chunk being filled; what earlier chunks held stays.
    void ResetBuff();
    /// Makes `s` the whole text.
    CStringBuff& operator=(const CString& s);
    /// Makes the character `c` the whole text.
    CStringBuff& operator=(char c);
    /// Appends the character `c`.
    CStringBuff& operator+=(char c);
    /// Appends the text `s`, a character at a time.
    CStringBuff& operator+=(const CString& s);
    /// The text collected so far.
    CString GetCString() const;
    /// Writes a title and the members, a line each.
    void dumpOn(std::ostream& os) const;
    CStringBuff(const CStringBuff&) = delete;
    CStringBuff& operator=(const CStringBuff&) = delete;

private:
    int32_t BuffSize;    // capacity of the chunk
    char* Buff;          // owned, the chunk, terminated at Index; null when memory failed
    int32_t Index;       // characters in the chunk
    CString FinalString; // the earlier chunks
};

#endif
