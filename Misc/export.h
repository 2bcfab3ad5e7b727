// SPDX-License-Identifier: BSD-2-Clause
// What a program sees of the library.
#ifndef MISC_EXPORT_H
#define MISC_EXPORT_H

/// Marks what the public headers declare; the shared library hides everything else. It says the same in a program as
/// in the library.
#define ZELOO_API __attribute__((visibility("default")))
/// Marks the private members of a marked class that no inline function calls and that are hidden too: templates, and
/// those whose parameters are of private types.
#define ZELOO_LOCAL __attribute__((visibility("hidden")))

#endif
