// SPDX-License-Identifier: BSD-2-Clause
// Hosts on one network, each with a name, queues and files of its own.
#ifndef TESTS_SYSTEM_HOSTS_TESTING_H
#define TESTS_SYSTEM_HOSTS_TESTING_H

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/system/centre_testing.h"

namespace centre_testing {

class Host {
public:
    explicit Host(const std::string& name) : name(name)
    {
        const std::string ready = directory.File("ready");
        holder = StartChild([&] {
            CHILD_CHECK(unshare(CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNS) == 0);
            CHILD_CHECK(sethostname(name.data(), name.size()) == 0);
            for (const char* path : {"/opt/orv", "/var/orv"})
                CHILD_CHECK(mount("tmpfs", path, "tmpfs", 0, "size=32m") == 0);
            std::filesystem::create_directories("/opt/orv/bin");
            std::filesystem::create_directories("/var/orv/data");
            MakeKeyFile("orvd");
            MakeKeyFile("orvcentre");
            WriteFile(ready, "yes");
            for (;;)
                pause();
        });
        EXPECT_TRUE(WaitUntil([&] { return ReadFile(ready) == "yes"; }));
    }
    ~Host()
    {
        for (const pid_t process : processes)
            EndChild(process, SIGTERM);
        EndChild(holder);
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    pid_t Start(const std::string& program, const std::vector<std::string>& arguments)
    {
        const pid_t pid = StartProgram("/usr/bin/nsenter", There(program, arguments), Log());
        processes.push_back(pid);
        return pid;
    }
    /// Ends one that was started, and waits for it.
    int End(pid_t pid, int signal)
    {
        for (pid_t& process : processes)
            if (process == pid)
                process = processes.back();
        processes.pop_back();
        return EndChild(pid, signal);
    }
    ChildResult Run(const std::string& program, const std::vector<std::string>& arguments) const
    {
        return RunProgram("/usr/bin/nsenter", There(program, arguments));
    }
    ChildResult Ctl(const std::vector<std::string>& arguments) const { return Run(Faultctl, arguments); }
    /// What --centre says there, without the times; "?" when it fails.
    std::string Centre(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "--centre");
        const ChildResult result = Ctl(arguments);
        return result.exitCode == 0 ? WithoutTimes(result.out) : "? " + result.err;
    }
    void Write(const std::string& path, const std::string& text) const
    {
        std::ofstream("/proc/" + std::to_string(holder) + "/root" + path, std::ios::app) << text;
    }
    /// A child of the test that goes on there.
    pid_t StartBody(const std::function<void()>& body)
    {
        const pid_t pid = StartChild([=] {
            for (const char* space : {"ipc", "uts", "mnt"}) {
                const int fd = open(("/proc/" + std::to_string(holder) + "/ns/" + space).c_str(), O_RDONLY);
                CHILD_CHECK(fd >= 0 && setns(fd, 0) == 0);
            }
            body();
        });
        processes.push_back(pid);
        return pid;
    }
    std::string Log() const { return directory.File("log"); }

    const std::string name;

private:
    std::vector<std::string> There(const std::string& program, const std::vector<std::string>& arguments) const
    {
        std::vector<std::string> all = {"--ipc", "--uts", "--mount", "--target", std::to_string(holder), program};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }

    TemporaryDirectory directory;
    pid_t holder = 0;
    std::vector<pid_t> processes;
};

/// Starts a centre, with other arguments than the one for the foreground, and waits until it answers.
inline pid_t StartCentre(Host& host, std::vector<std::string> arguments)
{
    arguments.emplace_back("--foreground");
    const pid_t pid = host.Start(Faultcentre, arguments);
    EXPECT_TRUE(WaitUntil([&] { return host.Centre({"list"})[0] != '?'; }, 60)) << ReadFile(host.Log());
    return pid;
}

} // namespace centre_testing

#endif
