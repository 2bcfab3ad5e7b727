// SPDX-License-Identifier: BSD-2-Clause
// Static objects that are never destroyed.
#ifndef MISC_DETAIL_IMMORTAL_H
#define MISC_DETAIL_IMMORTAL_H

#include <new>

namespace zeloo {

/// The object of type T that serves the whole process. It is made on first use, so that static objects of other units
/// can use it in their constructors, and never destroyed, so that they can in their destructors. There is one for each
/// type and `Tag`.
template <class T, class Tag = T>
T& Immortal()
{
    alignas(T) static unsigned char place[sizeof(T)];
    static T* const object = new (place) T;
    return *object;
}

} // namespace zeloo

#endif
