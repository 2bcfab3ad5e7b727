// SPDX-License-Identifier: BSD-2-Clause
// The smallest client: sends its argument to hello_server and prints the answer, or says why there is none.
#include <cerrno>
#include <cstring>
#include <iostream>

#include <sys/msg.h>

#include "Misc/ipcq.h"
#include "Misc/proginfo.h"

static int Fail(const char* reason, const char* detail)
{
    std::cerr << "hello_client: " << reason << detail << "\n";
    return 1;
}

// Why there is no queue to send on.
static int FailWithoutQueue()
{
    const int key = ftok_orvm("hello");
    if (key < 0)
        return Fail("cannot see the key file /opt/orv/bin/hello: ", strerror(errno));
    if (msgget(key, 0660) < 0 && errno == EACCES)
        return Fail("no right to the queue of hello_server: be its user, or a member of its group", "");
    return Fail("no server: is hello_server running?", "");
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, "1.0");
    IPCQClient server(0, "hello");
    if (!server.Connected())
        return FailWithoutQueue();
    server.SetReceiveTimeOut(10);
    const char* name = argc > 1 ? argv[1] : "world";
    short event = 1;
    Buffer answer;
    short code = server.send_event_with_response(event, name, static_cast<long>(strlen(name)));
    if (code == ErrorReporter::NO_ERRORS)
        code = server.receive_response(event, answer);
    if (code != ErrorReporter::NO_ERRORS)
        return Fail("no answer: ", ErrorReporter::GetErrorType(code));
    if (event == 0)
        return Fail("no answer within 10 seconds: is hello_server stopped?", "");
    std::cout << answer.GetCString() << "\n";
}
