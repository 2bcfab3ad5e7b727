// SPDX-License-Identifier: BSD-2-Clause
// A server for the tests of clients: it answers, refuses or goes as its events say.
#ifndef TESTS_SUPPORT_ECHO_SERVER_H
#define TESTS_SUPPORT_ECHO_SERVER_H

#include <string>

#include <unistd.h>

#include "Misc/ipcq.h"

namespace testing_support {

enum EchoEvents : short {
    Echo = 1,    // answered with the event and its data
    Refuse,      // the same with the status Refused
    RefuseOddly, // refused with another event, OddEvent
    AnswerOddly, // answered with another event
    Who,         // answered with the sender's program, "|" and node
    End,         // the server ends
    Retire,      // its queue goes, but not its process
    Hang         // it lives on, deaf
};

const short OddEvent = 99;
const short AckEvent = 77;
const short Refused = 45;

/// Serves for ever. An acknowledgement carries the first byte of the data as its status.
[[noreturn]] inline void ServeEchoes(IPCQServer& server)
{
    for (;;) {
        short event, response, ack;
        Buffer data;
        server.receive_event(event, data, response, ack);
        if (event == End || event == Retire)
            server.Shutdown();
        if (event == End)
            _exit(0);
        if (event == Retire || event == Hang)
            for (;;)
                pause();
        if (ack)
            server.send_response(AckEvent, data.Size() > 0 ? data[0] : 0, nullptr, 0);
        if (!response)
            continue;
        if (event == Who) {
            const std::string sender =
                std::string(server.LastSendersProgramName()) + "|" + server.LastSendersNodeName();
            data.PurgeContents();
            data.Append(sender.c_str());
        }
        const bool odd = event == RefuseOddly || event == AnswerOddly;
        const bool refused = event == Refuse || event == RefuseOddly;
        server.send_response(odd ? OddEvent : event, refused ? Refused : 0, data, static_cast<long>(data.Size()));
    }
}

} // namespace testing_support

#endif
