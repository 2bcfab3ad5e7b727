// SPDX-License-Identifier: BSD-2-Clause
// What a program may do with either client of a server, though they share it.
#include <sstream>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "Misc/ipcq.h"
#include "Misc/ipctli.h"

namespace {

// A client of no server.
class Queue : public IPCQClient {
public:
    Queue() : IPCQClient(7, nullptr) {}
    static constexpr char Name[] = "IPCQClient";
    typedef IPCQClient Client;
};
class Connection : public IPCTliClient {
public:
    Connection() : IPCTliClient(7, nullptr, nullptr, 0) {}
    static constexpr char Name[] = "IPCTliClient";
    typedef IPCTliClient Client;
};

template <class Client>
class EitherClient : public testing::Test {
};
typedef testing::Types<Queue, Connection> Clients;
struct ClientNames {
    template <class Client>
    static std::string GetName(int)
    {
        return Client::Name;
    }
};
TYPED_TEST_SUITE(EitherClient, Clients, ClientNames);

template <class Client>
std::string IdentityOf(const Client& client)
{
    std::ostringstream out;
    client.dumpOn(out);
    const std::string first = std::string(Client::Name) + "::DestObject";
    const std::string last = std::string(Client::Name) + " Object End";
    const size_t begin = out.str().find(first);
    return out.str().substr(begin, out.str().find(last) - begin);
}

std::string Identity(const std::string& name, const std::string& version, const std::string& program,
                     const std::string& node)
{
    return name + "::DestObject   : 7\n" + name + "::ClientVersion: " + version + "\n" + name +
           "::ClientProgram: " + program + "\n" + name + "::ClientNode   : " + node + "\n";
}

TYPED_TEST(EitherClient, HasAnIdentity)
{
    TypeParam client;
    EXPECT_EQ(IdentityOf(client), Identity(TypeParam::Name, "", "", "")) << "without a server's name";
    client.RegisterVersion("1.2");
    client.RegisterProgramName("program");
    client.RegisterNodeName("node");
    EXPECT_EQ(IdentityOf(client), Identity(TypeParam::Name, "1.2", "program", "node"));
    const std::string text(100, 't');
    client.RegisterVersion(text.c_str());
    client.RegisterProgramName(text.c_str());
    client.RegisterNodeName(nullptr);
    EXPECT_EQ(IdentityOf(client), Identity(TypeParam::Name, text.substr(0, 19), text.substr(0, 79), ""));
}

TYPED_TEST(EitherClient, GivesTheAddressesOfItsOperations)
{
    typedef typename TypeParam::Client Client;
    typedef short (Client::*Send)(short, const void*, long);
    typedef void (Client::*Register)(const char*);
    TypeParam client;
    for (const Send send :
         {Send(&Client::send_event), Send(&Client::send_event_with_response), Send(&Client::send_event_wait_ack)})
        EXPECT_EQ((client.*send)(1, "x", 1), ErrorReporter::IPC_CONNECTION_LOST);
    const Register registration = &Client::RegisterVersion;
    (client.*registration)("9");
    EXPECT_EQ(IdentityOf(client), Identity(TypeParam::Name, "9", "", ""));
    const auto plain = &TypeParam::send_event;
    EXPECT_EQ((client.*plain)(1, nullptr, 0), ErrorReporter::IPC_CONNECTION_LOST);
}

// A class of a program that has more to say about its sends.
template <class Base>
class Counting : public Base {
public:
    short send_event(short event, const void* ptr, long len)
    {
        sends++;
        return Base::send_event(event, ptr, len);
    }
    using Base::send_event_wait_ack;
    short send_event_wait_ack(short event) { return send_event_wait_ack(event, nullptr, 0); }
    int sends = 0;
};

TYPED_TEST(EitherClient, CanBeDerivedFrom)
{
    Counting<TypeParam> client;
    EXPECT_EQ(client.send_event(1, nullptr, 0), ErrorReporter::IPC_CONNECTION_LOST);
    EXPECT_EQ(client.send_event_wait_ack(1), ErrorReporter::IPC_CONNECTION_LOST);
    EXPECT_EQ(client.sends, 1);
}

// What they share adds nothing to a client, neither data nor virtual functions.
static_assert(std::is_empty_v<ServerClient<IPCQClient>> && std::is_empty_v<ServerClient<IPCTliClient>>);
// Nor can a program make one, or delete a client through it.
static_assert(!std::is_default_constructible_v<ServerClient<IPCQClient>>);
static_assert(!std::is_destructible_v<ServerClient<IPCQClient>>);

} // namespace
