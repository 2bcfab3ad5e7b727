// SPDX-License-Identifier: BSD-2-Clause
// std::cout and std::cerr for the library's own use: included in the place of <iostream>.
#ifndef MISC_DETAIL_STANDARDSTREAMS_H
#define MISC_DETAIL_STANDARDSTREAMS_H

#include <iostream>

namespace zeloo {

// <iostream> makes the streams usable before the static objects of the unit that includes it. A program's own static
// objects may be made earlier than those of the library that it is linked to, and what they call may write: this one is
// made before all of ordinary priority.
[[gnu::init_priority(101)]] static const std::ios_base::Init StandardStreams;

} // namespace zeloo

#endif
