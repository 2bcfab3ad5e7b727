// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/fleetstorm/engines.h"

#include <cstdlib>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "fleet/engine.h"
#include "tests/support/testing.h"
#include "tests/system/fleetstorm/hosts.h"

namespace fleetstorm {

static const int ClientPort = 4222, ClusterPort = 6222, MonitorPort = 8222; // of the first server

std::string EngineProgram()
{
    for (const char* path : {"/usr/sbin/nats-server", "/usr/bin/nats-server", "/usr/local/bin/nats-server"})
        if (access(path, X_OK) == 0)
            return path;
    return "";
}

static std::string At(int port, int index) { return std::string(BridgeAddress) + ":" + std::to_string(port + index); }

std::string EngineUrls()
{
    std::string urls;
    for (int i = 0; i < Engines; i++)
        urls += (i == 0 ? "nats://" : ",nats://") + At(ClientPort, i);
    return urls;
}

std::string EngineName(int index) { return "engine-" + std::to_string(index); }

int EngineIndex(const std::string& name)
{
    for (int i = 0; i < Engines; i++)
        if (name == EngineName(i))
            return i;
    return -1;
}

std::string ConfigureEngine(const Settings& settings, int index)
{
    const std::string removals = std::string("$JS.API.STREAM.MSG.DELETE.") + fleet::StreamName;
    const std::string purges = std::string("$JS.API.STREAM.PURGE.") + fleet::StreamName;
    std::string text = "server_name: " + EngineName(index) + "\nlisten: \"" + At(ClientPort, index) + "\"\nhttp: \"" +
                       At(MonitorPort, index) + "\"\njetstream { store_dir: \"" + settings.directory + "/" +
                       EngineName(index) + "\", max_file_store: 4GB }\nmappings = { \"" + removals + "\": \"" +
                       WithheldRemovals + "\", \"" + purges + "\": \"storm.never\", \"" + RealRemovals + "\": \"" +
                       removals + "\" }\n" + "cluster { name: fleet, listen: \"" + At(ClusterPort, index) +
                       "\", routes: [";
    for (int other = 0; other < Engines; other++)
        text += (other == 0 ? "\"nats://" : ", \"nats://") + At(ClusterPort, other) + "\"";
    std::string file = settings.directory + "/" + EngineName(index) + ".conf";
    testing_support::WriteFile(file, text + "] }\n");
    return file;
}

// What a server's monitor says; empty when it does not.
static std::string Ask(int index, const std::string& what)
{
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const struct timeval limit = {2, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(MonitorPort + index));
    inet_pton(AF_INET, BridgeAddress, &address.sin_addr);
    const std::string request = "GET " + what + " HTTP/1.0\r\n\r\n";
    std::string answer;
    char bytes[4096];
    if (connect(connection, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0 &&
        send(connection, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()))
        for (ssize_t got; (got = recv(connection, bytes, sizeof bytes, 0)) > 0;)
            answer.append(bytes, static_cast<size_t>(got));
    close(connection);
    return answer;
}

bool IsHealthy(int index) { return Ask(index, "/healthz").find("\"ok\"") != std::string::npos; }

std::map<std::string, uint64_t> LastOfStreams(int index)
{
    static const std::string name = "\"name\": \"", last = "\"last_seq\": ";
    const std::string text = Ask(index, "/jsz?streams=true&accounts=true");
    std::map<std::string, uint64_t> all;
    for (const char* stream : {fleet::StreamName, "KV_faults"}) {
        const size_t at = text.find(name + stream + "\"");
        const size_t number = at == std::string::npos ? at : text.find(last, at);
        if (number != std::string::npos)
            all[stream] = std::strtoull(text.c_str() + number + last.size(), nullptr, 10);
    }
    return all;
}

} // namespace fleetstorm
