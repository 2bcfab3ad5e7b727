// SPDX-License-Identifier: BSD-2-Clause
// What programs wrote before the strings had an order: all of it goes on compiling, with the meaning it had.
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <type_traits>

#include <strings.h>

#include "Misc/CstrArray.h"
#include "Misc/Hierarc.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"

namespace {

template <class Expected, class Actual>
void Expect(const Actual&)
{
    static_assert(std::is_same_v<Expected, Actual>);
}

// The order that programs gave the strings themselves: it comes before the library's.
bool operator<(const CString& a, const CString& b) { return strcmp(b, a) < 0; }
bool operator>(const CString& a, const char* b) { return strcmp(a, b) > 0; }
bool operator==(const char* a, const CString& b) { return b == a; }
bool operator==(const HierarchicNum& a, const char* b) { return strcmp(a, b) == 0; }
CString operator+(const char* a, const CString& b) { return CString(a) + b; }

struct NoCase : CString {
    using CString::CString;
    bool operator==(const CString& s) const { return strcasecmp(*this, s) == 0; }
    bool operator<(const CString& s) const { return strcasecmp(*this, s) < 0; }
};

struct Title {
    operator const char*() const { return "title"; }
    bool operator==(const char* s) const { return strcmp("title", s) == 0; }
};

enum Position { First, Second };
enum Signed { Before = -1, Here };

struct Field {
    unsigned place : 4;
};

struct Constants {
    static const int Place = 2; // without a definition: nothing may refer to it
};

void Strings(const CString& s, const CString& t, const char* p, char* q, int argc)
{
    CString empty;
    CString copy = s;
    CString made("made");
    CString cut("cut", 2);
    const CString given = p;
    if (s == t || s == p || s == q || s == "x" || "x" == s || p == t || s != t || s != p || s != "x" || s == empty)
        copy = s;
    if (s == made + "x" || made == NoCase("x") || NoCase("x") == made || s == Title() || Title() == "x")
        copy = p;
    if (s)
        copy = q;
    if (!t)
        copy = "literal";
    while (s && argc-- > 0)
        copy = nullptr;
    copy = argc ? s : t;
    copy = argc ? static_cast<const char*>(s) : "none";
    copy = NULL;
    copy = 0;
    copy = {};
    copy = {p, 3};
    copy = Title();
    Expect<bool>(s == NULL);
    Expect<bool>(s != 0);
    Expect<bool>(s == nullptr);
}

void Sums(CString s, const CString& t, const char* p, const char* q, int argc)
{
    Expect<CString>(s + "x");
    Expect<CString>(s + t);
    Expect<CString>(s + p + q + "x" + t);
    Expect<CString>("x" + s);
    Expect<const char*>(s + 1);
    Expect<const char*>(s + argc);
    Expect<const char*>(s + s.strlen());
    Expect<const char*>(1 + s);
    Expect<const char*>(s + First);
    Expect<std::ptrdiff_t>(strchr(s, '/') - s);
    s += "x";
    s += 'x';
    s += t;
    s += t[0];
}

void Characters(const CString& s, const CString& t, int argc)
{
    unsigned short shorter = 1;
    unsigned char byte = 1;
    unsigned number = 2;
    std::size_t size = 1;
    Field field = {3};
    Expect<char>(s[0]);
    static_assert(std::is_same_v<decltype(t[number]), char&>);
    s[0] = s[argc] = s[shorter] = s[byte] = s[number] = s[size] = s[argc - 1] = s[size + 1] = s['a' - 'A'];
    s[First] = s[Second] = s[Here] = s[field.place] = s[Constants::Place] = s[true] = s[1.0] = 'x';
    char* place = &s[1];
    *place = *s;
}

void Uses(CString s, const CString& t, const char* p)
{
    const CString given = p;
    CString made("made");
    printf("%s %s\n", static_cast<const char*>(s), p);
    if (strcmp(s, t) == 0 || strlen(s) == s.strlen() || strncmp(s, "x", 1) == 0)
        puts(s);
    std::cout << s << t << made + "x" << std::endl;
    const char* text = s;
    const char* other = given;
    std::string standard = static_cast<const char*>(s);
    standard += s;
    if (text == other || text < other)
        s.Insert(0, 'c');
    s.Insert(0, "x");
    s.Insert(0, t);
    Expect<bool>(s < t);
    std::map<CString, int> byText;
    byText["x"] = byText[s];
    if (NoCase("a") < NoCase("B") && NoCase("a") < s && s > "x")
        s = t;
    for (CStringIter line(s, ':'); line(); ++line)
        made = static_cast<const CString&>(line);
}

void Buffers(Buffer b, const Buffer& c, int i, const char* p)
{
    unsigned short shorter = 1;
    Buffer made(10);
    Buffer copy = b;
    made = c;
    Expect<char>(b[0]);
    b[i] = b[shorter] = b[7u] = b[First] = b[std::size_t(1)] = b[b.Size() - 1] = b[1.0] = 'x';
    char* place = &b[0];
    const char* constant = &c[0];
    char value = c[i];
    value = c[3u];
    const void* bytes = b;
    const char* text = c;
    memcpy(place, b, b.Size());
    memcpy(place, c, 1);
    memcpy(&b[0], p, 1);
    if (bytes != nullptr)
        printf("%s %s %c\n", static_cast<const char*>(b), text, value);
    if (strcmp(b, p) == 0 || strlen(c) != 0)
        puts(constant);
    CString s(b);
    CString t = CString(c);
    s = CString(b);
    s = static_cast<const char*>(b);
    Buffer::hexdumpOn(c, c.Size(), s);
    b.Append(p);
    b.Append(s);
    b.Append(s, s.strlen());
    b.Append(c, c.Size());
}

void Numbers(HierarchicNum h, const HierarchicNum& k, const char* p, const CString& s)
{
    h = k;
    h = p;
    h = "1.2";
    h = s;
    HierarchicNum made(p);
    HierarchicNum from = "1.2";
    HierarchicNum ofString(s);
    if (h == k || h != k || h < k || h <= k || h > k || h >= k || made == from || h == HierarchicNum("1.2"))
        puts(h);
    if (h == "1.2" || s == h || h)
        printf("%s\n", static_cast<const char*>(h));
    CString text(h);
    text = h;
    text += h;
    Expect<CString>(text + h);
    Expect<char>(h[0]);
    Expect<const char*>(h + 1);
    std::cout << h << std::endl;
}

int Backwards(const CString** a, const CString** b) { return strcmp(**b, **a); }
int Untyped(const void* a, const void* b)
{
    return strcmp(**static_cast<const CString* const*>(a), **static_cast<const CString* const*>(b));
}

void Arrays(CStringSafeArray& a, const CString* key)
{
    a.qsort(Backwards);
    a.qsort(CString::compare);
    a.qsort(Untyped);
    CString* found = a.bsearch(key, Backwards);
    found = a.search(key, CString::compare);
    found = a.lfind(found, CString::compare);
    void* any = a.bsearch(key, Untyped);
    any = a.search(any, Untyped);
    int (*function)(const CString**, const CString**) = CString::compare;
    CStringSafeArray::Compare same = function;
    a.qsort(same);
    Expect<CString*>(a[0]);
    Expect<CString*>(a[a.Quantity() - 1]);
    Expect<CString*>(a[std::size_t(0)]);
}

} // namespace

int main(int argc, char** argv)
{
    CStringSafeArray array;
    Strings(argv[0], "x", argv[0], argv[0], argc);
    Sums(argv[0], "x", argv[0], argv[0], argc);
    Characters(argv[0], "x", argc);
    Uses(argv[0], "x", argv[0]);
    Buffers(Buffer(3), Buffer(), 1, argv[0]);
    Numbers("1.2", "1.3", "1.4", "1.5");
    Arrays(array, array.first());
}
