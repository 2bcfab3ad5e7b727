// SPDX-License-Identifier: BSD-2-Clause
// The smallest server: answers every request with a greeting. SIGTERM or Ctrl-C ends it and removes its queue.
#include <iostream>
#include <string>

#include "Misc/ipcq.h"
#include "Misc/proginfo.h"

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, "1.0");
    IPCQServer inBasket("hello");
    if (!inBasket.Created()) {
        std::cerr << "hello_server: no queue: does /opt/orv/bin/hello exist? Is another hello_server running?\n";
        return 1;
    }
    for (;;) {
        short event = 0;
        short responseRequired = 0;
        short ackRequired = 0;
        Buffer name;
        inBasket.receive_event(event, name, responseRequired, ackRequired);
        if (responseRequired) {
            const std::string greeting = std::string("Hello, ") + name.GetCString() + "!";
            inBasket.send_response(event, 0, greeting.data(), static_cast<long>(greeting.size()));
        }
    }
}
