// SPDX-License-Identifier: BSD-2-Clause
// Dotted multi-level numbers such as 1.2.3.
#ifndef MISC_HIERARC_H
#define MISC_HIERARC_H

#include <cstdint>
#include <type_traits>

#include "Misc/cstring.h"
#include "Misc/export.h"
#include "Misc/ularray.h"

namespace zeloo {

/// Enabled for CString, what derives from it, and C strings.
template <class Text>
using IfText = std::enable_if_t<std::is_convertible_v<const Text*, const CString*> ||
                                std::is_same_v<std::remove_cv_t<std::remove_pointer_t<std::decay_t<Text>>>, char>>;

} // namespace zeloo

/// A number of levels, each a 32-bit unsigned value, with an order and a family tree: 1.2 is the parent of 1.2.3 and
/// sorts before it, and 1.2 sorts before 1.10. Arithmetic on a level wraps at 32 bits. A number holds at most 32767
/// levels.
///
/// A number is made from a text: decimal levels joined by single dots. A text that is anything else makes the number
/// invalid, with the levels read up to the fault; 1.2. has the levels 1 and 2, 12a has none. Its own text is rebuilt
/// from the levels, so that 007.10 becomes 7.10.
class ZELOO_API HierarchicNum {
public:
    /// A number without levels: not valid, with an empty text.
    HierarchicNum();
    /// Parses `s`; null is a text without levels.
    HierarchicNum(const char* s);
    /// A copy, with the validity of `h`.
    HierarchicNum(const HierarchicNum& h) = default;
    /// Takes over levels, text and validity of `h`.
    HierarchicNum& operator=(const HierarchicNum& h);
    /// Parses `s` in place of the number; null is a text without levels.
    HierarchicNum& operator=(const char* s);

    /// The number of levels.
    short get_num_levels() const { return NumLevels; }
    /// 1 when the last text parsed was a well-formed number, else 0.
    int is_valid() const { return valid; }
    /// 1 when there is a level `i`, counted from 0; else 0.
    int is_valid_level(int i) const { return i >= 0 && i < NumLevels; }
    /// The value of level `i`, or 0 when there is none.
    unsigned long at_level(int i) const { return is_valid_level(i) ? Levels.at(i) : 0; }
    /// The text; it stays valid until the number changes.
    operator const char*() const { return text_rep; }

    /// Appends a level of the 32-bit value of `level`; does nothing at 32767 levels. The validity stays.
    void add_level(unsigned long level);
    /// Adds one to the last level; 4294967295 becomes 0. A number without levels is left alone. The validity stays.
    void inc();
    /// Subtracts one from the last level; 0 becomes 4294967295. A number without levels is left alone. The validity
    /// stays.
    void dec();

    /// Below 0, 0 or above 0 as this number sorts before, with or behind `h`: the difference of the first level that
    /// differs, taken as a 32-bit int (so levels more than 2147483647 apart sort the other way round), else the
    /// difference of the level counts.
    int compare_with(const HierarchicNum& h) const;
    /// compare_with as the comparison function of arrays. REQUIRES: no pointer is null.
    static int compare(const HierarchicNum** a, const HierarchicNum** b);
    // The full set: without them the built-in operators would compare the addresses of the texts.
    /// Whether this number sorts before `h`, by compare_with.
    bool operator<(const HierarchicNum& h) const { return compare_with(h) < 0; }
    /// Whether this number sorts before `h` or is equal to it.
    bool operator<=(const HierarchicNum& h) const { return compare_with(h) <= 0; }
    /// Whether this number sorts behind `h`.
    bool operator>(const HierarchicNum& h) const { return compare_with(h) > 0; }
    /// Whether this number sorts behind `h` or is equal to it.
    bool operator>=(const HierarchicNum& h) const { return compare_with(h) >= 0; }
    /// Whether the levels are the same.
    bool operator==(const HierarchicNum& h) const { return compare_with(h) == 0; }
    /// Whether a level differs, or their number.
    bool operator!=(const HierarchicNum& h) const { return compare_with(h) != 0; }
    /// A text is compared as the number that it makes: "1.02" equals 1.2, and 1.2 sorts before "1.10". These are
    /// templates, so that a program that has such an operator of its own goes on using it.
    // clang-format off
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator<(const HierarchicNum& h, const Text& text) { return h < HierarchicNum(text); }
    /// Whether `h` sorts before the number that `text` makes, or is equal to it.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator<=(const HierarchicNum& h, const Text& text) { return h <= HierarchicNum(text); }
    /// Whether `h` sorts behind the number that `text` makes.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator>(const HierarchicNum& h, const Text& text) { return h > HierarchicNum(text); }
    /// Whether `h` sorts behind the number that `text` makes, or is equal to it.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator>=(const HierarchicNum& h, const Text& text) { return h >= HierarchicNum(text); }
    /// Whether `h` has the levels of the number that `text` makes.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator==(const HierarchicNum& h, const Text& text) { return h == HierarchicNum(text); }
    /// Whether `h` differs from the number that `text` makes.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator!=(const HierarchicNum& h, const Text& text) { return h != HierarchicNum(text); }
    /// Whether the number that `text` makes sorts before `h`.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator<(const Text& text, const HierarchicNum& h) { return HierarchicNum(text) < h; }
    /// Whether the number that `text` makes sorts before `h` or is equal to it.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator<=(const Text& text, const HierarchicNum& h) { return HierarchicNum(text) <= h; }
    /// Whether the number that `text` makes sorts behind `h`.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator>(const Text& text, const HierarchicNum& h) { return HierarchicNum(text) > h; }
    /// Whether the number that `text` makes sorts behind `h` or is equal to it.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator>=(const Text& text, const HierarchicNum& h) { return HierarchicNum(text) >= h; }
    /// Whether the number that `text` makes has the levels of `h`.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator==(const Text& text, const HierarchicNum& h) { return HierarchicNum(text) == h; }
    /// Whether the number that `text` makes differs from `h`.
    template <class Text, class = zeloo::IfText<Text>>
    friend bool operator!=(const Text& text, const HierarchicNum& h) { return HierarchicNum(text) != h; }
    // clang-format on

    /// 1 when both numbers have at least `n` levels, `n` is at least 1, and the first `n` levels agree; else 0.
    int samePrefix(short n, const HierarchicNum& h) const;
    /// What this number is to `h`: 3 a child, 1 a deeper descendant, 4 the same, 24 the parent, 16 a further ancestor,
    /// 0 anything else or without levels. The values are sets of bits: 1 descendant, 2 direct (child), 4 equal,
    /// 8 direct (parent), 16 ancestor.
    int relation(const HierarchicNum& h) const;

    /// The text, in the encoding of a CString.
    friend ZELOO_API ZELostream& operator<<(ZELostream& s, const HierarchicNum& h);
    /// Reads a CString and parses it.
    friend ZELOO_API ZEListream& operator>>(ZEListream& s, HierarchicNum& h);

private:
    void copy(const HierarchicNum& h);
    void create_levels(const char* s);
    int append_level(uint32_t level);
    void create_text_rep();

    int16_t NumLevels;
    int32_t valid;
    ulongArray Levels; // the first NumLevels cells are in use
    CString text_rep;  // the text of the levels, kept in step with them
};

#endif
