// SPDX-License-Identifier: BSD-2-Clause
// What a credential is good for, by trying.
#ifndef TESTS_SYSTEM_CLIENT_TESTING_H
#define TESTS_SYSTEM_CLIENT_TESTING_H

#include <string>

#include <nats/nats.h>

#include "tests/system/fleet_testing.h"

namespace fleet_testing {

/// A client that shows a credential, with what a program can do that is not one of ours.
class Client {
public:
    Client(const std::string& url, const std::string& credentials, const std::string& inbox = "")
    {
        natsOptions* options = nullptr;
        natsOptions_Create(&options);
        natsOptions_SetURL(options, url.c_str());
        natsOptions_SetAllowReconnect(options, false);
        natsOptions_SetSecure(options, true);
        natsOptions_SkipServerVerification(options, true); // it is not the server that is to be protected here
        if (!inbox.empty())
            natsOptions_SetCustomInboxPrefix(options, inbox.c_str());
        if (!credentials.empty())
            natsOptions_LoadCertificatesChain(options, (credentials + "/client.crt").c_str(),
                                              (credentials + "/client.key").c_str());
        if (natsConnection_Connect(&connection, options) != NATS_OK)
            connection = nullptr;
        natsOptions_Destroy(options);
    }
    ~Client()
    {
        natsSubscription_Destroy(subscription);
        natsConnection_Destroy(connection);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool IsIn() const { return connection != nullptr && natsConnection_FlushTimeout(connection, 5000) == NATS_OK; }
    bool IsClosed() const { return natsConnection_IsClosed(connection); }
    /// What the engine says of what has been sent; empty: nothing against it.
    std::string Objection() const
    {
        natsConnection_FlushTimeout(connection, 5000);
        const char* text = nullptr;
        natsConnection_GetLastError(connection, &text);
        return text != nullptr ? text : "";
    }
    bool MayPublish(const std::string& subject) const
    {
        natsConnection_PublishString(connection, subject.c_str(), "text");
        return Objection().empty();
    }
    bool MaySubscribe(const std::string& subject, const char* group = nullptr)
    {
        const natsStatus status =
            group != nullptr ? natsConnection_QueueSubscribeSync(&subscription, connection, subject.c_str(), group)
                             : natsConnection_SubscribeSync(&subscription, connection, subject.c_str());
        return status == NATS_OK && Objection().empty();
    }
    void Publish(const std::string& subject, const std::string& reply, const std::string& text) const
    {
        natsConnection_PublishRequestString(connection, subject.c_str(), reply.c_str(), text.c_str());
        natsConnection_FlushTimeout(connection, 5000);
    }
    /// Answers the next message of the subscription.
    bool Answer(const std::string& text) const
    {
        natsMsg* message = nullptr;
        if (natsSubscription_NextMsg(&message, subscription, 5000) != NATS_OK)
            return false;
        const natsStatus status = natsConnection_PublishString(connection, natsMsg_GetReply(message), text.c_str());
        natsMsg_Destroy(message);
        return status == NATS_OK && Objection().empty();
    }
    std::string Request(const std::string& subject, const std::string& text) const
    {
        natsMsg* answer = nullptr;
        if (natsConnection_RequestString(&answer, connection, subject.c_str(), text.c_str(), 5000) != NATS_OK)
            return "";
        std::string data(natsMsg_GetData(answer), static_cast<std::size_t>(natsMsg_GetDataLength(answer)));
        natsMsg_Destroy(answer);
        return data;
    }
    int Waiting() const
    {
        uint64_t count = 0;
        natsSubscription_QueuedMsgs(subscription, &count);
        return static_cast<int>(count);
    }

private:
    natsConnection* connection = nullptr;
    natsSubscription* subscription = nullptr;
};

} // namespace fleet_testing

#endif
