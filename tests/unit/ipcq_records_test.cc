// SPDX-License-Identifier: BSD-2-Clause
#include "tests/unit/ipcq_testing.h"

#include <memory>
#include <sstream>

namespace {

using namespace ipcq_testing;

class IpcqRecords : public IpcqTest {};

std::string Dump(const IPCQMessage& msg)
{
    std::ostringstream out;
    DumpIPCMessage(&msg, out);
    EXPECT_TRUE(out.good());
    return out.str();
}

TEST_F(IpcqRecords, TheFieldsStandAtTheirOffsets)
{
    EXPECT_EQ(IPCMessageDataSize, 2000);
    EXPECT_EQ(IPCMessageNonDataSize, 300);
    EXPECT_EQ(sizeof IPCMessageMaxDataLen, 2u);
    EXPECT_EQ(sizeof(IPCQMessage), 2004u);
    EXPECT_EQ(sizeof(IPCQMsg), 2004u);
    EXPECT_EQ(offsetof(IPCQMessage, orignode), 192u);
    EXPECT_EQ(offsetof(IPCQMessage, alloc_data_length), 280u);
    EXPECT_EQ(offsetof(IPCQMessage, msg_data), 304u);
}

TEST_F(IpcqRecords, SendsTheBytesOfTheRecord)
{
    MakeKeyFile("wire");
    Server server("wire");
    ASSERT_TRUE(server.Created());
    const pid_t peer = IdleProcess();
    ASSERT_EQ(server.IPCSend("prog", "nod", "12345678901234567890123", peer, "dest", 0x0102, 0x0304, "data!", 5, 1, 2,
                             0x0506),
              0);
    RawMessage raw;
    ASSERT_EQ(msgrcv(server.Queue(), &raw, sizeof raw.text, peer, IPC_NOWAIT), 305);
    std::string expected(305, '\0'); // the text starts at offset 4 of the record
    const auto put = [&](size_t offset, const std::string& bytes) {
        expected.replace(offset - 4, bytes.size(), bytes);
    };
    const auto number = [](int32_t n) { return std::string(reinterpret_cast<const char*>(&n), 4); };
    const auto half = [](int16_t n) { return std::string(reinterpret_cast<const char*>(&n), 2); };
    put(4, "1234567890123456789");
    put(24, number(getpid()));
    put(28, half(0x0102));
    put(30, half(0x0304));
    put(32, "dest");
    put(112, "prog");
    put(192, "nod");
    put(272, half(1));
    put(274, half(2));
    put(276, half(0x0506));
    put(280, number(5));
    put(292, number(-1));
    put(300, number(5));
    put(304, "data!");
    EXPECT_EQ(std::string(raw.text, 305), expected);
    EndChild(peer);
}

TEST_F(IpcqRecords, DumpsAnInlineMessage)
{
    IPCQMessage msg = Event(12, 345, "AB");
    msg.mtype = 678;
    msg.object = -1;
    msg.response_rqd = 1;
    msg.ack_rqd = 2;
    msg.parts_left = 3;
    msg.curr_data_offset = 4;
    EXPECT_EQ(Dump(msg), "IPCQMessage: \n"
                         "\n"
                         "mtype (to_pid)    = 678\n"
                         "senders_version   = 1.0\n"
                         "senders_pid       = 345\n"
                         "\n"
                         "object            = -1\n"
                         "event             = 12\n"
                         "\n"
                         "destprog          = server\n"
                         "origprog          = program\n"
                         "orignode          = node\n"
                         "response_rqd      = 1\n"
                         "ack_rqd           = 2\n"
                         "result_code       = -1\n"
                         "alloc_data_length = 2\n"
                         "\n"
                         "parts_left        = 3\n"
                         "curr_data_offset  = 4\n"
                         "\n"
                         "shmem_id          = -1\n"
                         "shmem_size        = 0\n"
                         "msg_data_len = 2\n"
                         "msg_data = " +
                             HexDump("AB", 2));
}

TEST_F(IpcqRecords, DumpsAMessageWithASegment)
{
    IPCQMessage msg = Event(1, 2, "AB");
    msg.shmem_id = 0;
    msg.shmem_size = 99;
    const std::string dump = Dump(msg);
    EXPECT_EQ(dump.substr(dump.find("shmem_id")), "shmem_id          = 0\n"
                                                  "shmem_size        = 99\n"
                                                  "data in shared memory segment\n");
}

TEST_F(IpcqRecords, DumpNamesTheSpecialEvents)
{
    const auto line = [](short event) {
        const std::string dump = Dump(Event(event, 1));
        const size_t at = dump.find("event  ");
        return dump.substr(at, dump.find('\n', at) - at);
    };
    EXPECT_EQ(line(static_cast<short>(0xFFFE)), "event             = -2 (Multi-Block-Ack)");
    EXPECT_EQ(line(static_cast<short>(0xFFFD)), "event             = -3 (Multi-Block-Data)");
    EXPECT_EQ(line(0), "event             = 0 (NULL)");
    EXPECT_EQ(line(static_cast<short>(0xFFFF)), "event             = -1");
    EXPECT_EQ(line(1), "event             = 1");
}

TEST_F(IpcqRecords, DumpOfAHostileMessageStaysInside)
{
    // At the end of its block, so that a sanitizer sees a read beyond it.
    const std::unique_ptr<IPCQMessage> msg(new IPCQMessage);
    std::memset(static_cast<void*>(msg.get()), 'x', sizeof *msg);
    msg->shmem_id = -1;
    msg->msg_data_len = 0x7FFFFFFF;
    const std::string dump = Dump(*msg);
    EXPECT_NE(dump.find("senders_version   = " + std::string(20, 'x') + "\n"), std::string::npos);
    EXPECT_NE(dump.find("destprog          = " + std::string(80, 'x') + "\n"), std::string::npos);
    EXPECT_NE(dump.find("origprog          = " + std::string(80, 'x') + "\n"), std::string::npos);
    EXPECT_NE(dump.find("orignode          = " + std::string(80, 'x') + "\n"), std::string::npos);
    EXPECT_EQ(dump.substr(dump.find("msg_data_len")),
              "msg_data_len = 2147483647\nmsg_data = " + HexDump(msg->msg_data, 1700));

    msg->msg_data_len = -5;
    const std::string negative = Dump(*msg);
    EXPECT_EQ(negative.substr(negative.find("msg_data_len")), "msg_data_len = -5\nmsg_data = " + HexDump("", 0));
}

TEST_F(IpcqRecords, ArraysOwnTheirItemsAndNameThem)
{
    IPCQMsgSafeArray messages;
    messages.AddItem(new IPCQMsg{Event(1, 2, "abc")});
    const IPCQMsgSafeArray copy(messages);
    ASSERT_EQ(copy.Quantity(), 1u);
    EXPECT_NE(copy[0], messages[0]);
    EXPECT_EQ(copy[0]->msg.event, 1);
    std::ostringstream out;
    messages.print(out);
    EXPECT_EQ(out.str().substr(0, out.str().find('\n')), "SafeArray(IPCQMsg)***************");

    InternalQMessageSafeArray internal;
    internal.AddItem(new InternalQMessage);
    out.str("");
    internal.print(out);
    EXPECT_EQ(out.str().substr(0, out.str().find('\n')), "SafeArray(InternalQMessage)***************");
}

TEST_F(IpcqRecords, AnInternalMessageCopiesItsData)
{
    InternalQMessage message;
    EXPECT_EQ(message.object, 0);
    EXPECT_EQ(message.event, 0);
    EXPECT_STREQ(message.origprog, "");
    EXPECT_STREQ(message.orignode, "");
    EXPECT_EQ(message.result_code, 0);
    message.event = 5;
    std::strcpy(message.origprog, "prog");
    message.data.Append("abc", 3);
    InternalQMessage copy(message);
    message.data[0] = 'X';
    EXPECT_EQ(copy.event, 5);
    EXPECT_STREQ(copy.origprog, "prog");
    EXPECT_EQ(Bytes(copy.data), "abc");
}

} // namespace
