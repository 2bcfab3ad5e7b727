// SPDX-License-Identifier: BSD-2-Clause
// The constants and structures of the headers here and those of the host layer, which are the same.
#ifndef COMPAT_TYPES_H
#define COMPAT_TYPES_H

/// The member `member` has the same place in both structures called `type`, which are of one size.
#define SAME_PLACE(type, member)                                                                                       \
    static_assert(sizeof(struct type) == sizeof(struct svr4::type) &&                                                  \
                  offsetof(struct type, member) == offsetof(struct svr4::type, member))

/// The constant has the same value in both.
#define SAME_VALUE(name) static_assert(static_cast<int>(name) == static_cast<int>(svr4::name))

namespace zeloo {

/// A structure of the one kind as the other.
template <class To, class From>
To* As(From* structure)
{
    static_assert(sizeof(To) == sizeof(From) && alignof(To) == alignof(From));
    return reinterpret_cast<To*>(structure);
}

template <class To, class From>
const To* As(const From* structure)
{
    static_assert(sizeof(To) == sizeof(From) && alignof(To) == alignof(From));
    return reinterpret_cast<const To*>(structure);
}

} // namespace zeloo

#endif
