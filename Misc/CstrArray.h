// SPDX-License-Identifier: BSD-2-Clause
// The typed array of strings.
#ifndef MISC_CSTRARRAY_H
#define MISC_CSTRARRAY_H

#include "Misc/SafeArray.h"
#include "Misc/cstring.h"
#include "Misc/export.h"

template <>
ZELOO_API const char* SafeArray<CString>::ElementName();
extern template class SafeArray<CString>;

/// The array of CString. Copying it copies the strings, which costs no copy of their texts: equal strings share one.
/// Elements are deleted through the destructor of their own class, so an array may hold objects derived from CString
/// too; a copy of the array holds them as plain strings. CString::compare is the comparison function for alphabetical
/// order, in qsort as in bsearch and search on an array sorted by it.
class ZELOO_API CStringSafeArray : public SafeArray<CString> {
public:
    using SafeArray<CString>::SafeArray;
};

/// The iterator over a CStringSafeArray.
class ZELOO_API CStringSafeArrayIter : public SafeArrayIter<CString> {
public:
    using SafeArrayIter<CString>::SafeArrayIter;
};

#endif
