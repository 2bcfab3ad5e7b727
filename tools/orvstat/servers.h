// SPDX-License-Identifier: BSD-2-Clause
// The servers of this host: what their names, queues, semaphore sets and processes say together.
#ifndef TOOLS_ORVSTAT_SERVERS_H
#define TOOLS_ORVSTAT_SERVERS_H

#include <optional>
#include <string>
#include <vector>

#include "objects.h"
#include "processes.h"

namespace orvstat {

enum class State {
    None,     // neither queue nor set
    Up,       // its process lives and has a queue
    Stopped,  // the same, but a signal or a debugger has stopped it
    Starting, // its process lives and is registered; there is no queue yet
    Stale,    // its process is dead
    NoSet,    // a queue without a set: nothing tells whose it is
    Unknown   // the set must not be read
};

/// The word for a state.
const char* StateName(State state);

struct Server {
    std::vector<std::string> names; // of the key files: several when their keys are the same, none when it is not there
    key_t key = -1;
    std::optional<Queue> queue;
    std::optional<SemaphoreSet> set;
    State state = State::None;
    long pid = 0; // of the first living server, else of a dead one; 0: none is registered
    std::string program;
    std::vector<long> blockedSenders;
    std::vector<long> blockedReceivers;

    /// "NAME", "NAME,NAME"; empty without a name.
    std::string Name() const;
};

struct Host {
    std::vector<Server> servers; // those with a queue or a set, by name; last those without a name
    int unseenProcesses = 0;     // at which this process must not look: they may be blocked too
};

// What looks stale is looked at twice, since a server that is just starting or ending may look so for a moment.

/// All servers whose key files are in the program directory, and all queues that have a key of that kind and a set beside
/// them.
Host LookAtHost();

/// The server of a name, or of a path with a "/". Its state is None when it has neither queue nor set; its key is
/// negative when there is no key file. Who is blocked is not asked.
Server LookAtServer(const std::string& name);

/// The files that whoever makes, joins or removes the server's queue may lock: `name`'s own, and those with the same key.
std::vector<std::string> KeyFilesOf(const std::string& name);

} // namespace orvstat

#endif
