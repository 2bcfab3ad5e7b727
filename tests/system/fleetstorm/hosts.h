// SPDX-License-Identifier: BSD-2-Clause
// Hosts on this one, each with a name, an address, queues and files of its own, and a network that can be cut.
#ifndef TESTS_SYSTEM_FLEETSTORM_HOSTS_H
#define TESTS_SYSTEM_FLEETSTORM_HOSTS_H

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace fleetstorm {

const char BridgeAddress[] = "10.77.0.1"; // of the sandbox

/// The namespaces of each host are kept by a child of this process, and go with it.
class Hosts {
public:
    Hosts() = default;
    ~Hosts();
    Hosts(const Hosts&) = delete;
    Hosts& operator=(const Hosts&) = delete;

    /// Makes hosts of these names, once. False when the kernel refuses something, which is said on standard error.
    bool Make(const std::vector<std::string>& names);
    /// Forks a child that runs `body` there, and ends with it or with this process. It is killed when this process goes.
    pid_t Start(int host, const std::function<void()>& body) const;
    /// Takes the host off the network, or puts it back.
    void SetLink(int host, bool isUp) const;

private:
    struct Host {
        std::string name;
        pid_t keeper = 0;
        int line = -1; // a socket to the keeper
    };
    bool MakeNetwork();

    std::vector<Host> hosts;
};

/// In a child: ends it when its parent goes.
void EndWithParent(pid_t parent);

} // namespace fleetstorm

#endif
