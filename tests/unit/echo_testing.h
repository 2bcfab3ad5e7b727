// SPDX-License-Identifier: BSD-2-Clause
// What the tests of clients share: an echo server on this host, started and ended by the fixture.
#ifndef TESTS_UNIT_ECHO_TESTING_H
#define TESTS_UNIT_ECHO_TESTING_H

#include "tests/support/echo_server.h"
#include "tests/unit/ipcq_testing.h"

namespace ipcq_testing {

/// Names the host of the daemon; without it that is this host.
const char HostFile[] = "/var/orv/data/orvdserver.host";

/// Tests of clients, by all ways, of an echo server on this host.
class EchoTest : public IpcqTest {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /etc, /var and /opt/orv/bin";
        IpcqTest::SetUp();
        unlink(HostFile);
    }
    void TearDown() override { EndServer(); }

    void StartEchoes(const char* name = "orvd") { server = StartServer(name, ServeEchoes); }
    void EndServer(int signal = SIGTERM)
    {
        if (server <= 0)
            return;
        EndChild(server, signal);
        server = 0;
    }

    pid_t server = 0;
    short event = -1;
    Buffer data;
};

} // namespace ipcq_testing

#endif
