// SPDX-License-Identifier: BSD-2-Clause
// The smallest client: sends its argument to hello_server and prints the answer.
#include <cstring>
#include <iostream>

#include "Misc/ipcq.h"
#include "Misc/proginfo.h"

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, "1.0");
    IPCQClient server(0, "hello");
    const char* name = argc > 1 ? argv[1] : "world";
    short event = 1;
    Buffer answer;
    if (!server.Connected() || server.send_event_with_response(event, name, static_cast<long>(strlen(name))) != 0 ||
        server.receive_response(event, answer) != 0) {
        std::cerr << "hello_client: no answer: is hello_server running?\n";
        return 1;
    }
    std::cout << answer.GetCString() << "\n";
}
