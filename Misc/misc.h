// SPDX-License-Identifier: BSD-2-Clause
// What every daemon needs: leaving its terminal, its output in a log file, and the nodes it may listen to.
//
// The functions share one ErrorReporter. What they tell at debug level 4 or more (see MonitoredObject::debug) goes to
// standard output, one item a line. They may be called before main and after it; they serve a process of one thread
// and are not for signal handlers.
#ifndef MISC_MISC_H
#define MISC_MISC_H

#include <iostream> // which makes the standard streams usable for the static objects of every including unit

#include "Misc/export.h"

class CString;
struct hostent;

/// How many of the descriptors 0 to 59 are open.
ZELOO_API int NumberOfOpenFiles();

/// Points standard input, output and error at the log file `LogFileName`. With an `Append` of 0 an existing regular
/// file is first renamed to the same name with ".old" behind it, which replaces an older one, and a fresh file is made;
/// a rename that fails is passed over silently. What is no regular file (a device, a FIFO that somebody reads) is
/// opened as it is, and so is every file otherwise, where the output goes to its end. Opening does not wait for a
/// reader of a FIFO: without one it fails with ENXIO. A new file gets the permissions 0644 less the file creation mask.
/// Output that is still buffered goes where it belonged before. Returns 0 with `errno` kept, also when `LogFileName` is
/// null and so nothing is done. Returns -1 with the reason on standard error when the redirection failed; standard
/// input is closed then, or the log file already.
ZELOO_API short redirectoutput(const char* LogFileName, short Append);

/// Turns the caller into a daemon: a process of another session that it does not lead, without a terminal and without
/// its parent, which exits with status 0. The parent runs no exit handlers and destructors: what they would clean up is
/// the daemon's now. The descriptors 0 to 59 are closed, the file creation mask is 0, SIGTTOU, SIGTTIN, SIGTSTP, SIGHUP
/// and SIGCLD are ignored (so that children never become zombies and their ends cannot be waited for), and the output
/// goes to the log file as redirectoutput does it.
///
/// SIGHUP stays ignored, also by the programs that the daemon runs, until a handler is set for it. A MonitoredObject that
/// is made when there is no other does that: from then on SIGHUP ends the daemon as SIGTERM does. One that was made before
/// and still lives does not.
///
/// The working directory stays the caller's, and so do relative names; it keeps its file system from being unmounted. A
/// daemon that minds calls chdir("/") afterwards. An alarm that the caller has set does not come with the daemon, and a
/// signal that comes while it leaves the caller runs no handler in a process that is about to go.
///
/// A caller whose parent is process 1 is a daemon already. That is told on standard error, and the caller goes on as it
/// is, with only descriptors, mask, SIGCLD and output changed.
///
/// The daemon is another process: queues, connections, locks and children that the caller had stay the caller's, which
/// has gone. An IPCQServer is made afterwards, and so is all else of that kind.
///
/// Returns, in the daemon, the result of redirectoutput, with `errno` 0 when that is 0. Where it failed or the name is
/// null the descriptors stay closed. Returns -1 when a fork failed and -2 when the session could not be made, with the
/// reason on standard error and the descriptors open; the result is then that of the process that got that far.
ZELOO_API short daemonize(const char* LogFileName, short Append);

/// The Internet (IPv4) addresses of the host `Name`, or null when the name does not resolve, which is told at debug
/// level 4, or when its addresses are of another family, which is reported (WARNING, INVALID_DATA). The result is the
/// resolver's and valid until the next look-up.
ZELOO_API hostent* GetHost(const char* Name);

/// 1 when the host names `FromNode` and `NName` have an IPv4 address in common, else 0; 0 also when one of them does
/// not resolve, or when memory fails, which is reported (WARNING, OUT_OF_MEMORY).
ZELOO_API int AddrEqual(const char* FromNode, const char* NName);

/// Reads the node list file "/var/orv/data/orvnodes.dat" when its modification time is later than that of the file
/// last read. While there is no file the current list stays, and its absence is reported (WARNING, OTHER) once. A file
/// that cannot be opened (WARNING, OPENING_FILE) or read to its end (WARNING, READING_FROM_FILE) leaves the current list
/// too; that is reported once, and tried again at every call, until it can be read.
///
/// The file is text, one node a line: the node name and, behind blanks or tabs, its access option. Blanks and tabs in
/// front of the name, lines without a name and what follows the option are skipped. What exceeds 511 characters of a
/// line is taken as the next line.
ZELOO_API void CheckNodesFile();

/// Finds the access option of the node `FromNode`: `DefaultVal` when that is "global" (every node is accepted, and the
/// list is not looked at); else the option of the first node of the list (see CheckNodesFile) with exactly this name;
/// else the option of the first node that has an address in common with it, in which case the name is learned with that
/// option until the file is next read. An entry without an option gives an empty one. The option goes to `ReturnVal`.
///
/// A node that is not found is rejected: `ReturnVal` is `DefaultVal`, and the first rejection of each node in the life
/// of the process is reported and logged (WARNING_WITH_LOG, MISCONFIGURATION_NODES). Returns 1 exactly for a rejection
/// that was logged; otherwise 0, also for a node rejected before: the caller decides by `ReturnVal` and the result.
/// This is intended. Null texts count as empty; either text may be that of `ReturnVal`.
///
/// Without memory to look for the node that is reported (WARNING, OUT_OF_MEMORY); the result is 0, `ReturnVal` empty.
ZELOO_API int GetAccessOptionForNode(const char* FromNode, const char* DefaultVal, CString& ReturnVal);

#endif
