// SPDX-License-Identifier: BSD-2-Clause
// D-Bus (libdbus-1-dev): method calls with an array of bytes over a connection between two processes, without a bus.
#include <dbus/dbus.h>

#include <poll.h>

#include "bench/peers/requests.h"

namespace {

// What a server asks to be told: whether somebody wants to connect. One descriptor, of one address.
dbus_bool_t AddWatch(DBusWatch* watch, void* kept)
{
    *static_cast<DBusWatch**>(kept) = watch;
    return TRUE;
}

void RemoveWatch(DBusWatch*, void* kept) { *static_cast<DBusWatch**>(kept) = nullptr; }

void Accept(DBusServer*, DBusConnection* connection, void* kept)
{
    *static_cast<DBusConnection**>(kept) = dbus_connection_ref(connection);
}

// The first connection that is made.
DBusConnection* AcceptOne(DBusServer* server)
{
    DBusWatch* watch = nullptr;
    DBusConnection* connection = nullptr;
    dbus_server_set_watch_functions(server, AddWatch, RemoveWatch, nullptr, &watch, nullptr);
    dbus_server_set_new_connection_function(server, Accept, &connection, nullptr);
    while (connection == nullptr && watch != nullptr) {
        struct pollfd waited = {dbus_watch_get_unix_fd(watch), POLLIN, 0};
        if (poll(&waited, 1, ResponseLimit * 1000) <= 0)
            break;
        dbus_watch_handle(watch, DBUS_WATCH_READABLE);
    }
    return connection;
}

// Answers every call with an empty reply, until the client closes.
void Serve(DBusServer* server)
{
    DBusConnection* const connection = AcceptOne(server);
    while (connection != nullptr && dbus_connection_read_write(connection, -1))
        while (DBusMessage* const call = dbus_connection_pop_message(connection)) {
            if (dbus_message_get_type(call) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
                DBusMessage* const reply = dbus_message_new_method_return(call);
                dbus_connection_send(connection, reply, nullptr);
                dbus_connection_flush(connection);
                dbus_message_unref(reply);
            }
            dbus_message_unref(call);
        }
}

// Listens in this process first, so that the client needs not wait for the other to be ready.
class Listener {
public:
    Listener() : server(dbus_server_listen(("unix:abstract=zeloo-bench-" + std::to_string(getpid())).c_str(), nullptr))
    {
    }
    ~Listener() { Close(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    void Close()
    {
        if (server == nullptr)
            return;
        dbus_server_disconnect(server);
        dbus_server_unref(server);
        server = nullptr;
    }
    DBusServer* Get() { return server; }
    DBusConnection* Connect()
    {
        if (server == nullptr)
            return nullptr;
        char* const address = dbus_server_get_address(server);
        DBusConnection* const connection = dbus_connection_open_private(address, nullptr);
        dbus_free(address);
        return connection;
    }

private:
    DBusServer* server;
};

class Ends {
public:
    explicit Ends(size_t size)
        : server([this] { Serve(listener.Get()); }), connection(listener.Connect()), request(size, 'r')
    {
        listener.Close();
    }
    ~Ends()
    {
        if (connection == nullptr)
            return;
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
    Ends(const Ends&) = delete;
    Ends& operator=(const Ends&) = delete;

    bool Request()
    {
        if (connection == nullptr)
            return false;
        const char* const bytes = request.data();
        DBusMessage* const call = dbus_message_new_method_call(nullptr, "/bench", "zeloo.Bench", "Request");
        dbus_message_append_args(call, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, static_cast<int>(request.size()),
                                 DBUS_TYPE_INVALID);
        DBusMessage* const reply =
            dbus_connection_send_with_reply_and_block(connection, call, ResponseLimit * 1000, nullptr);
        dbus_message_unref(call);
        if (reply != nullptr)
            dbus_message_unref(reply);
        return reply != nullptr;
    }

private:
    Listener listener;
    Server server;
    DBusConnection* connection;
    std::string request;
};

const bool Registered = RegisterRequests<Ends>("DBus", {0, 1699});

} // namespace
