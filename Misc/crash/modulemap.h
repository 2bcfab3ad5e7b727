// SPDX-License-Identifier: BSD-2-Clause
// The module map beside a crash file: what its addresses belong to.
#ifndef MISC_CRASH_MODULEMAP_H
#define MISC_CRASH_MODULEMAP_H

#include <ostream>

namespace zeloo {

/// The map of a crash file "DIRECTORY/NAME.sig" is "DIRECTORY/NAME.map". It has a block for every report, in their order:
///
///     (an empty line)
///     the first line of the report
///     pid=PID\tmodules=NUMBER
///     low=HEX\thigh=HEX\tbias=HEX\tbuildid=HEX\tpath=PATH      for every module
///
/// where an address of a module, which lies from `low` on and below `high`, less `bias` is what its file calls it. What is
/// a backslash or a control character in a path is written as a backslash and three octal digits. A module without build
/// id has none behind `buildid=`. Fewer lines than NUMBER: the others are left out.
///
/// A map that cannot be written is left out, without a word: it must not cost the report.

/// Makes what WriteModuleMap writes with.
void MakeReadyForModuleMap();

/// Appends a block to the map of the crash file; `heading` writes the first line of the report. Nothing but a regular file
/// is written, and no link followed; a block that does not fit is taken back. For the handler.
void WriteModuleMap(const char* crashFile, void (*heading)(std::ostream& file));

/// Moves the map to its name with ".old" behind it, as has been done with the crash file.
void RotateModuleMap(const char* crashFile);

} // namespace zeloo

#endif
