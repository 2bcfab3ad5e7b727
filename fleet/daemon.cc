// SPDX-License-Identifier: BSD-2-Clause
#include "daemon.h"

namespace fleet {

Daemon::Daemon(const std::string& node) : node(node) {}

short Daemon::Ask(short event, const Buffer& request, Buffer& answer)
{
    if (client == nullptr || !client->Connected()) {
        client = std::make_unique<IPCQClient>(0, FaultServerName);
        if (!client->Connected())
            return ErrorReporter::SERVER_GONE;
        if (!node.empty())
            client->RegisterNodeName(node.c_str());
    }
    short status = client->send_event_with_response(event, request, static_cast<long>(request.Size()));
    short answered = 0;
    if (status == ErrorReporter::NO_ERRORS)
        status = client->receive_response(answered, answer);
    if (status >= ErrorReporter::SERVER_GONE && status <= ErrorReporter::IPC_RECV_PROCESS_GONE)
        client.reset();
    return status;
}

} // namespace fleet
