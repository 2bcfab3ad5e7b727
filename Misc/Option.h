// SPDX-License-Identifier: BSD-2-Clause
// Named settings.
#ifndef MISC_OPTION_H
#define MISC_OPTION_H

#include "Misc/SafeArray.h"
#include "Misc/cstring.h"
#include "Misc/export.h"

/// One setting: a name and its value as text. What a name means is up to the programs.
///
/// In a stream an option is its name and then its value, each in the encoding of a CString: in a Buffer, `port` = `7`
/// is `4|port1|7`. Nothing says how many options follow one another, so the reader must know.
class ZELOO_API Option {
public:
    /// Both texts empty.
    Option() = default;
    /// Copies of the two texts; null gives an empty one.
    Option(const char* name, const char* value);
    /// Copies share the texts.
    Option(const Option& option) = default;
    /// Takes over both texts, which are then shared.
    Option& operator=(const Option& x) = default;
    virtual ~Option() = default;

    CString Name;  ///< What is set.
    CString Value; ///< To what it is set.
};

/// Writes name and value.
inline ZELostream& operator<<(ZELostream& out, const Option& This) { return out << This.Name << This.Value; }

/// Reads name and value in place of those that `This` has. A text that comes short keeps what came and sets the
/// stream's read error flag (see CString::scanFrom).
inline ZEListream& operator>>(ZEListream& in, Option& This) { return in >> This.Name >> This.Value; }

template <>
ZELOO_API const char* SafeArray<Option>::ElementName();
extern template class SafeArray<Option>;

/// An array of options. The order in which one is sorted for `bsearch` is the program's: it brings the comparison
/// function.
class ZELOO_API OptionSafeArray : public SafeArray<Option> {
public:
    using SafeArray<Option>::SafeArray;
};

#endif
