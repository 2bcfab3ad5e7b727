// SPDX-License-Identifier: BSD-2-Clause
// Where a system keeps what its programs share.
#ifndef MISC_DETAIL_PATHS_H
#define MISC_DETAIL_PATHS_H

namespace zeloo {

/// The key files of the servers and the resizing tool.
constexpr char ProgramDirectory[] = "/opt/orv/bin/";
constexpr char ResizingTool[] = "/opt/orv/bin/.orvsys "; // with its trailing blank
/// Crash files are here.
constexpr char DataDirectory[] = "/var/orv/data";
constexpr char NodesFile[] = "/var/orv/data/orvnodes.dat";
constexpr char ServerHostFile[] = "/var/orv/data/orvdserver.host";
/// The shell of commands; the host layer finds another one where there is none of this name.
constexpr char Shell[] = "/sbin/sh";

} // namespace zeloo

#endif
