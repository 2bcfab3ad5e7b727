// SPDX-License-Identifier: BSD-2-Clause
// A client of a server of the same host, which is killed at any time.
#ifndef TESTS_SYSTEM_FLEETSTORM_CLIENT_H
#define TESTS_SYSTEM_FLEETSTORM_CLIENT_H

#include <memory>
#include <string>

#include "Misc/ipcq.h"
#include "examples/fault.h"

namespace fleetstorm {

/// Joins the queue of the server for as long as it lives. What it sends it sends once.
class Client {
public:
    /// In the name of `node`, the host that the process has entered.
    Client(const char* server, const std::string& node) : server(server), node(node) {}

    /// The status of the server; or what failed, and then it is not known whether the server did it.
    short Ask(short event, const Buffer& request, Buffer& answer)
    {
        if (client == nullptr || !client->Connected()) {
            client = std::make_unique<IPCQClient>(0, server);
            if (!client->Connected())
                return ErrorReporter::SERVER_GONE;
            client->RegisterNodeName(node.c_str());
        }
        short status = client->send_event_with_response(event, request, static_cast<long>(request.Size()));
        short answered = 0;
        if (status == ErrorReporter::NO_ERRORS)
            status = client->receive_response(answered, answer);
        if (HasFailed(status))
            client.reset();
        return status;
    }
    template <class Question, class Answer>
    bool Get(short event, const Question& question, Answer* answer)
    {
        Buffer request, data;
        Pack(question, request);
        return Ask(event, request, data) == ErrorReporter::NO_ERRORS && Unpack(data, *answer);
    }
    static bool HasFailed(short status)
    {
        return status < 0 || (status >= ErrorReporter::IPC_ERROR && status <= ErrorReporter::IPC_SEND_TIME_OUT);
    }

private:
    const char* server;
    const std::string node;
    std::unique_ptr<IPCQClient> client;
};

} // namespace fleetstorm

#endif
