// SPDX-License-Identifier: BSD-2-Clause
// What compiles, on 32 and 64 bits.
#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <type_traits>

#include "Misc/CstrArray.h"
#include "Misc/Hierarc.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"

namespace {

enum Position { First };
enum Signed { Before = -1, Here };
enum Wide : long { Far = 1 };

struct Field {
    unsigned place : 4;
};

struct Name : CString {
    using CString::CString;
};

// Each of these subscripts of an `x` gives the type `Element`.
template <class Element, class Indexed, class... Index>
void Subscripts(Indexed& x, Index... i)
{
    (static_cast<void>(x[i]), ...);
    static_assert((std::is_same_v<decltype(x[i]), Element> && ...));
}

template <class Element, class Indexed>
void Subscripts(Indexed& x)
{
    const Field field = {1};
    Subscripts<Element>(x, 0, 0u, 0l, 0ul, 0ll, 0ull, std::size_t{0}, std::ptrdiff_t{0}, short{0}, 'a', true, First,
                        Here, Far, static_cast<unsigned short>(0), static_cast<unsigned char>(0));
    static_assert(std::is_same_v<decltype(x[field.place]), Element> && std::is_same_v<decltype(x[0]), Element>);
}

// Each comparison of `a` with `b` compiles.
template <class A, class B>
bool Compare(const A& a, const B& b)
{
    return (a == b) + (a != b) + (a < b) + (a > b) + (a <= b) + (a >= b);
}

template <class A, class B>
bool Comparisons(const A& a, const B& b)
{
    return Compare(a, b) + Compare(b, a);
}

bool Texts(CString s, const Name& name, char* p, const char* q, const char (&array)[3], Buffer& b)
{
    std::set<CString> set = {s, "x", q};
    std::map<CString, int, std::less<>> map;
    map["x"] = map[s] = static_cast<int>(map.count("x"));

    s = b;
    s = static_cast<const Buffer&>(b);
    s = Buffer(3);
    static_assert(std::is_same_v<decltype(s + 'c'), CString>);
    static_assert(std::is_same_v<decltype('c' + s), CString>);
    static_assert(std::is_same_v<decltype(s + array[0] + q + *p), CString>);
    return Comparisons(s, CString()) + Comparisons(s, name) + Comparisons(name, Name("x")) + Comparisons(s, p) +
           Comparisons(s, q) + Comparisons(s, array) + Comparisons(s, "x") + Comparisons(name, q) +
           Comparisons(name, "x");
}

bool Numbers(const HierarchicNum& h, const CString& s, const Name& name, char* p, const char* q)
{
    return Comparisons(h, HierarchicNum()) + Comparisons(h, s) + Comparisons(h, name) + Comparisons(h, p) +
           Comparisons(h, q) + Comparisons(h, "1.2");
}

} // namespace

int main(int, char** argv)
{
    CString s;
    const CString constantString;
    Buffer b;
    const Buffer constantBuffer;
    CStringSafeArray array;
    Subscripts<char&>(s);
    Subscripts<char&>(constantString);
    Subscripts<char&>(b);
    Subscripts<const char&>(constantBuffer);
    Subscripts<CString*>(array);
    return Texts(s, "x", argv[0], argv[0], "xy", b) + Numbers("1.2", s, "1.2", argv[0], argv[0]);
}
