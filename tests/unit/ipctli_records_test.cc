// SPDX-License-Identifier: BSD-2-Clause
// The record, its dump, and events of one or more records, malformed ones included.
#include <climits>
#include <sstream>

#include <fcntl.h>

#include "tests/unit/ipctli_testing.h"

namespace {

using namespace ipctli_testing;

class IpctliRecords : public IpctliTest {};

std::string Dump(const TliMsgStruct& msg)
{
    std::ostringstream out;
    DumpTliMessage(&msg, out);
    EXPECT_TRUE(out.good());
    return out.str();
}

TliMsgStruct Record()
{
    TliMsgStruct msg;
    std::memset(static_cast<void*>(&msg), 0, sizeof msg);
    msg.object = -3;
    msg.QueueExistCheck = 1;
    std::strcpy(msg.senders_version, "1.0");
    msg.parts_left = 4;
    msg.send_data_length = 2;
    msg.curr_data_offset = 1700;
    msg.event = 17;
    std::strcpy(msg.orignode, "node");
    std::strcpy(msg.origprog, "program");
    msg.response_rqd = 5;
    msg.ack_rqd = 6;
    msg.result_code = -1;
    msg.alloc_data_length = 99999;
    std::memcpy(msg.msg_data, "AB", 2);
    return msg;
}

TEST_F(IpctliRecords, TheFieldsStandAtTheirOffsets)
{
    EXPECT_EQ(sizeof(TliMsgStruct), 1904u);
    EXPECT_EQ(offsetof(TliMsgStruct, orignode), 34u);
    EXPECT_EQ(offsetof(TliMsgStruct, alloc_data_length), 200u);
    EXPECT_EQ(offsetof(TliMsgStruct, msg_data), 204u);
}

TEST_F(IpctliRecords, DumpsEveryField)
{
    EXPECT_EQ(Dump(Record()), "TliMessage\n"
                              "\n"
                              "QueueExistCheck =  TRUE\n"
                              "object =           -3\n"
                              "senders_version  = 1.0\n"
                              "parts_left =       4\n"
                              "send_data_length = 2\n"
                              "curr_data_offset = 1700\n"
                              "\n"
                              "event =              17\n"
                              "\n"
                              "origprog: program\n"
                              "orignode: node\n"
                              "response_rqd: 5\n"
                              "ack_rqd     : 6\n"
                              "result_code : -1\n"
                              "alloc_data_length: 99999\n"
                              "msg_data = " +
                                  HexDump("AB", 2));
}

TEST_F(IpctliRecords, DumpsAnEmptyRecord)
{
    TliMsgStruct msg;
    std::memset(static_cast<void*>(&msg), 0, sizeof msg);
    EXPECT_EQ(Dump(msg), "TliMessage\n"
                         "\n"
                         "QueueExistCheck =  FALSE\n"
                         "object =           0\n"
                         "senders_version  = \n"
                         "parts_left =       0\n"
                         "send_data_length = 0\n"
                         "curr_data_offset = 0\n"
                         "\n"
                         "event =              0 (NULL)\n"
                         "\n"
                         "origprog: \n"
                         "orignode: \n"
                         "response_rqd: 0\n"
                         "ack_rqd     : 0\n"
                         "result_code : 0\n"
                         "alloc_data_length: 0\n"
                         "msg_data = " +
                             HexDump("", 0));
}

TEST_F(IpctliRecords, DumpNamesNoOtherEvent)
{
    TliMsgStruct msg = Record();
    for (const int event : {-1, -2, -3}) {
        msg.event = static_cast<int16_t>(event);
        EXPECT_NE(Dump(msg).find("event =              " + std::to_string(event) + "\n\n"), std::string::npos);
    }
}

TEST_F(IpctliRecords, DumpOfAHostileRecordStaysInside)
{
    // On the heap: what is read beyond the record is found by the sanitizer.
    TliMsgStruct* msg = new TliMsgStruct;
    std::memset(static_cast<void*>(msg), 'x', sizeof *msg);
    msg->send_data_length = 32767;
    std::string dump = Dump(*msg);
    EXPECT_NE(dump.find("senders_version  = " + std::string(20, 'x') + "\n"), std::string::npos);
    EXPECT_NE(dump.find("origprog: " + std::string(80, 'x') + "\n"), std::string::npos);
    EXPECT_NE(dump.find("orignode: " + std::string(80, 'x') + "\n"), std::string::npos);
    EXPECT_NE(dump.find("send_data_length = 32767\n"), std::string::npos);
    EXPECT_EQ(dump.substr(dump.find("msg_data = ")), "msg_data = " + HexDump(std::string(1700, 'x').data(), 1700));
    msg->send_data_length = -1;
    dump = Dump(*msg);
    EXPECT_EQ(dump.substr(dump.find("msg_data = ")), "msg_data = " + HexDump("", 0));
    delete msg;
}

// ---- Events out ----

TEST_F(IpctliRecords, SendsTheBytesOfTheRecord)
{
    RawPeerConnection connection;
    TliMsgStruct msg = Record();
    std::memset(msg.msg_data, 0, sizeof msg.msg_data);
    ASSERT_EQ(connection.end.send_block(&msg, "data!", 5), 0);
    RawRecord expected;
    expected.Put16(0, -3);
    expected.Put16(2, 1);
    expected.Put(4, "1.0");
    expected.Put16(26, 5);
    expected.Put16(32, 17);
    expected.Put(34, "node");
    expected.Put(114, "program");
    expected.Put16(194, 5);
    expected.Put16(196, 6);
    expected.Put16(198, -1);
    expected.Put32(200, 5);
    expected.Put(204, "data!");
    RawRecord record;
    ASSERT_TRUE(connection.peer.Receive(&record));
    EXPECT_EQ(record.bytes, expected.bytes);
    EXPECT_EQ(msg.parts_left, -1);
    EXPECT_EQ(msg.curr_data_offset, 5);
}

// The lengths of the records that carry `size` bytes; their data is checked.
std::vector<int> RecordLengths(IPCTli& end, const RawSocket& peer, int size)
{
    const std::string data = Pattern(static_cast<size_t>(size));
    TliMsgStruct msg = Record();
    EXPECT_EQ(end.send_block(&msg, data.data(), size), 0);
    std::vector<int> lengths;
    std::string received;
    RawRecord record;
    do {
        if (!peer.Receive(&record))
            return {};
        EXPECT_EQ(record.Get16(24), size / 1700 - int(lengths.size()));
        EXPECT_EQ(record.Get32(28), int(received.size()));
        EXPECT_EQ(record.Get32(200), size);
        EXPECT_EQ(record.Get16(32), 17);
        EXPECT_EQ(record.Text(114), "program");
        lengths.push_back(record.Get16(26));
        received += record.Data();
    } while (record.Get16(24) > 0);
    EXPECT_EQ(received, data);
    return lengths;
}

TEST_F(IpctliRecords, DataTravelsInBlocksOf1700)
{
    RawPeerConnection connection;
    typedef std::vector<int> Lengths;
    EXPECT_EQ(RecordLengths(connection.end, connection.peer, 0), Lengths({0}));
    EXPECT_EQ(RecordLengths(connection.end, connection.peer, 1), Lengths({1}));
    EXPECT_EQ(RecordLengths(connection.end, connection.peer, 1699), Lengths({1699}));
    EXPECT_EQ(RecordLengths(connection.end, connection.peer, 1700), Lengths({1700, 0}));
    EXPECT_EQ(RecordLengths(connection.end, connection.peer, 1701), Lengths({1700, 1}));
    EXPECT_EQ(RecordLengths(connection.end, connection.peer, 3400), Lengths({1700, 1700, 0}));
    EXPECT_EQ(RecordLengths(connection.end, connection.peer, 3401), Lengths({1700, 1700, 1}));
}

TEST_F(IpctliRecords, RefusedArgumentsSendNothing)
{
    RawPeerConnection connection;
    static const char byte = 'x';
    const std::string report = Report(ErrorReporter::WARNING, ErrorReporter::BAD_IPC_PARAMETER,
                                      "tcp_send_block data or data length not valid.");
    const struct {
        const void* ptr;
        long len;
    } cases[] = {{&byte, -1},       {nullptr, 1},     {nullptr, -1}, {&byte, 32768L * 1700},
                 {&byte, LONG_MAX}, {&byte, LONG_MIN}};
    for (const auto& refused : cases) {
        TliMsgStruct msg = Record();
        short code = 0;
        EXPECT_EQ(Reports([&] { code = connection.end.send_block(&msg, refused.ptr, refused.len); }), report);
        EXPECT_EQ(code, TcpError);
        EXPECT_EQ(std::memcmp(&msg, &static_cast<const TliMsgStruct&>(Record()), sizeof msg), 0);
    }
    connection.end.Tclose();
    EXPECT_TRUE(connection.peer.AtEnd());
}

TEST_F(IpctliRecords, TheLongestDataNeeds32768Records)
{
    RawPeerConnection connection;
    const long longest = 32768L * 1700 - 1;
    const pid_t sender = StartChild([&] {
        const std::string data(longest, 'd');
        TliMsgStruct msg = Record();
        CHILD_CHECK(connection.end.send_block(&msg, data.data(), longest) == 0);
    });
    RawRecord record;
    int records = 0;
    do {
        ASSERT_TRUE(connection.peer.Receive(&record));
        ASSERT_EQ(record.Get16(24), 32767 - records);
        records++;
    } while (record.Get16(24) > 0);
    EXPECT_EQ(records, 32768);
    EXPECT_EQ(record.Get16(26), 1699);
    EXPECT_EQ(record.Get32(28), 32767 * 1700);
    EXPECT_EQ(WaitForExit(sender), 0);
}

// ---- Events in ----

// The header of `record`, as it lies in the memory of this host.
std::string HeaderOf(const RawRecord& record)
{
    RecordBytes header(record.bytes.size());
    header.bytes = record.bytes;
    for (const size_t offset : {0, 2, 24, 26, 32, 194, 196, 198})
        header.Put16(offset, record.Get16(offset));
    for (const size_t offset : {28, 200})
        header.Put32(offset, record.Get32(offset));
    return header.bytes.substr(0, sizeof(TliMsgStruct));
}

std::string HeaderOf(const TliMsgStruct& msg) { return {reinterpret_cast<const char*>(&msg), sizeof msg}; }

TEST_F(IpctliRecords, ReceivesOneRecordWithItsHeader)
{
    RawPeerConnection connection;
    RawRecord record = MakeRecord(-7, 0, 0, 5, "hello");
    record.Put16(0, 12);
    record.Put16(2, 1);
    record.Put16(194, 1);
    record.Put16(196, 2);
    record.Put16(198, 3);
    ASSERT_TRUE(connection.peer.Send(record));
    TliMsgStruct msg;
    std::memset(static_cast<void*>(&msg), 'x', sizeof msg);
    Buffer data(3);
    EXPECT_EQ(connection.end.recv_block(&msg, data), 0);
    EXPECT_EQ(HeaderOf(msg), HeaderOf(record));
    EXPECT_EQ(Bytes(data), "hello");

    ASSERT_TRUE(connection.peer.Send(MakeReply(1, 0)));
    EXPECT_EQ(connection.end.recv_block(&msg, data), 0);
    EXPECT_EQ(data.Size(), 0u);
}

TEST_F(IpctliRecords, TheHeaderOfTheFirstRecordIsKept)
{
    RawPeerConnection connection;
    const std::string text = Pattern(3400);
    const RawRecord first = MakeRecord(1, 2, 0, 3400, text.substr(0, 1700));
    ASSERT_TRUE(connection.peer.Send(first));
    ASSERT_TRUE(connection.peer.Send(MakeRecord(2, 1, 1700, 3400, text.substr(1700))));
    ASSERT_TRUE(connection.peer.Send(MakeRecord(3, 0, 3400, 3400, "")));
    ASSERT_TRUE(connection.peer.Send(MakeRecord(4, 0, 0, 4, "next")));
    TliMsgStruct msg;
    Buffer data;
    EXPECT_EQ(connection.end.recv_block(&msg, data), 0);
    EXPECT_EQ(HeaderOf(msg), HeaderOf(first));
    EXPECT_EQ(Bytes(data), text);
    EXPECT_EQ(connection.end.recv_block(&msg, data), 0);
    EXPECT_EQ(msg.event, 4);
    EXPECT_EQ(Bytes(data), "next");
}

TEST_F(IpctliRecords, BlocksMayBeSmaller)
{
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 2, 0, 5, "ab")));
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 1, 2, 5, "cd")));
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 0, 4, 5, "e")));
    TliMsgStruct msg;
    Buffer data;
    EXPECT_EQ(connection.end.recv_block(&msg, data), 0);
    EXPECT_EQ(Bytes(data), "abcde");
}

TEST_F(IpctliRecords, BlocksComeInWhateverOrder)
{
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 3, 2, 8, "23"))); // the first says how many there are
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 0, 6, 8, "67")));
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 1, 0, 8, "01")));
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 2, 4, 8, "45")));
    ASSERT_TRUE(connection.peer.Send(MakeRecord(2, 0, 0, 4, "next")));
    TliMsgStruct msg;
    Buffer data;
    EXPECT_EQ(connection.end.recv_block(&msg, data), 0);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_EQ(connection.end.recv_block(&msg, data), 0);
    EXPECT_EQ(Bytes(data), "next") << "no byte of the next event is taken";
}

TEST_F(IpctliRecords, AnySizeArrives)
{
    const int sizes[] = {0, 1, 1699, 1700, 1701, 3400, 1 << 20, 10 << 20, (1 << 20) + 1, 2 * (1 << 20) + 1};
    IPCTli listener;
    ASSERT_EQ(listener.Tprelisten("localhost", "orvd"), 1);
    const pid_t sender = StartChild([&] {
        listener.Tclose();
        IPCTli end;
        CHILD_CHECK(end.Topen("localhost", "orvd"));
        for (const int size : sizes) {
            TliMsgStruct msg = Record();
            CHILD_CHECK(end.send_block(&msg, Pattern(static_cast<size_t>(size)).data(), size) == 0);
        }
        end.Tshutdown();
        CHILD_CHECK(end.Tclose() == 0);
    });
    IPCTli end;
    ASSERT_EQ(listener.Tlisten(), 1);
    ASSERT_EQ(end.Taccept(listener), 1);
    TliMsgStruct msg;
    Buffer data;
    for (const int size : sizes) {
        ASSERT_EQ(end.recv_block(&msg, data), 0) << size;
        EXPECT_EQ(msg.alloc_data_length, size);
        EXPECT_EQ(msg.event, 17);
        EXPECT_EQ(data.Size(), static_cast<unsigned>(size));
        EXPECT_TRUE(Bytes(data) == Pattern(static_cast<size_t>(size))) << size;
    }
    EXPECT_EQ(WaitForExit(sender), 0);
    const Output output = Capture([&] { EXPECT_EQ(end.recv_block(&msg, data), ServerGone); });
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.err, "");
}

// ---- Malformed records ----

struct Malformed {
    const char* what;
    std::vector<RawRecord> records;
};

RawRecord Changed16(RawRecord record, size_t offset, int value)
{
    record.Put16(offset, value);
    return record;
}

RawRecord Changed32(RawRecord record, size_t offset, int32_t value)
{
    record.Put32(offset, value);
    return record;
}

RawRecord Filled(RawRecord record, size_t offset, size_t size)
{
    record.Put(offset, std::string(size, 'x'));
    return record;
}

std::vector<Malformed> MalformedEvents()
{
    const std::string full(1700, 'f');
    const RawRecord sound = MakeRecord(1, 0, 0, 5, "hello");
    const RawRecord first = MakeRecord(1, 2, 0, 3401, full);
    const RawRecord second = MakeRecord(1, 1, 1700, 3401, full);
    const RawRecord third = MakeRecord(1, 0, 3400, 3401, "t");
    return {
        {"negative total", {Changed32(sound, 200, -1)}},
        {"least total", {Changed32(sound, 200, INT32_MIN)}},
        {"negative length", {Changed16(sound, 26, -1)}},
        {"least length", {Changed16(sound, 26, -32768)}},
        {"length beyond the record", {Changed16(MakeRecord(1, 1, 0, 5000, full), 26, 1701)}},
        {"greatest length", {Changed16(MakeRecord(1, 20, 0, 32767, full), 26, 32767)}},
        {"length beyond the total", {Changed32(sound, 200, 4)}},
        {"data without a total", {Changed32(sound, 200, 0)}},
        {"more to come without a total", {MakeRecord(1, 1, 0, 0, "")}},
        {"total beyond the only record", {Changed32(sound, 200, 6)}},
        {"total beyond the records", {MakeRecord(1, 2, 0, 5101, full)}},
        {"greatest total", {MakeRecord(1, 32767, 0, INT32_MAX, full)}},
        {"negative parts", {MakeRecord(1, -1, 0, 5, "hello")}},
        {"first offset above 0", {MakeRecord(1, 0, 1, 6, "hello")}},
        {"first offset below 0", {MakeRecord(1, 0, -1, 5, "hello")}},
        {"version without end", {Filled(sound, 4, 20)}},
        {"node without end", {Filled(sound, 34, 80)}},
        {"program without end", {Filled(sound, 114, 80)}},
        {"second offset too small", {first, Changed32(second, 28, 0)}},
        {"second offset too large", {first, Changed32(second, 28, 1701), third}},
        {"second offset negative", {first, Changed32(second, 28, -1700)}},
        {"greatest second offset", {first, Changed32(second, 28, INT32_MAX)}},
        {"second length negative", {first, Changed16(second, 26, -1)}},
        {"second length beyond the record", {first, Changed16(second, 26, 1701)}},
        {"second length too small for the rest", {first, Changed16(second, 26, 0)}},
        {"second total different", {first, Changed32(second, 200, 3402)}},
        {"parts not counted down", {first, Changed16(second, 24, 2)}},
        {"parts counted up", {first, Changed16(second, 24, 3)}},
        {"parts cut short", {first, Changed16(second, 24, 0), third}},
        {"the second twice", {first, second, second}},
        {"the first twice", {first, first}},
        {"parts below 0", {first, second, Changed16(third, 24, -1)}},
        {"last length beyond the total", {first, second, Changed16(third, 26, 2)}},
        {"last length short of the total", {first, second, Changed16(third, 26, 0)}},
    };
}

TEST_F(IpctliRecords, MalformedRecordsEndTheConnection)
{
    const std::string report =
        Report(ErrorReporter::WARNING, ErrorReporter::TCP_ERROR, "Malformed record received, connection closed.");
    for (const Malformed& malformed : MalformedEvents()) {
        RawPeerConnection connection;
        for (const RawRecord& record : malformed.records)
            ASSERT_TRUE(connection.peer.Send(record));
        TliMsgStruct msg;
        Buffer data(1);
        short code = 0;
        std::string out;
        EXPECT_EQ(Reports([&] { out = CaptureStdout([&] { code = connection.end.recv_block(&msg, data); }); }), report)
            << malformed.what;
        EXPECT_EQ(out, "") << malformed.what;
        EXPECT_EQ(code, TcpError) << malformed.what;
        EXPECT_EQ(data.Size(), 0u) << malformed.what;
        EXPECT_EQ(Descriptor(connection.end), -1) << malformed.what;
        EXPECT_TRUE(connection.peer.AtEnd()) << malformed.what;
    }
}

TEST_F(IpctliRecords, ALaterFailureLeavesNoData)
{
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 1, 0, 1701, std::string(1700, 'f'))));
    connection.peer.Close();
    TliMsgStruct msg;
    Buffer data;
    EXPECT_EQ(connection.end.recv_block(&msg, data), ServerGone);
    EXPECT_EQ(data.Size(), 0u);
    EXPECT_EQ(msg.alloc_data_length, 1701);
    EXPECT_GE(Descriptor(connection.end), 0);
}

// What a peer announces is not taken from memory until it comes.
TEST_F(IpctliRecords, AnAnnouncedTotalTakesNoMemory)
{
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 32767, 0, 32767 * 1700, std::string(1700, 'f'))));
    static volatile sig_atomic_t largest;
    largest = 0;
    struct sigaction action = {}, earlier;
    action.sa_handler = [](int) {
        // The receiver waits for the second record now.
        char text[64] = "";
        const int fd = open("/proc/self/statm", O_RDONLY);
        if (fd >= 0 && read(fd, text, sizeof text - 1) > 0)
            largest = static_cast<sig_atomic_t>(std::atol(text) * (sysconf(_SC_PAGESIZE) / 1024));
        close(fd);
    };
    sigaction(SIGUSR2, &action, &earlier);
    TliMsgStruct msg;
    Buffer data;
    const long before = VirtualSize() / 1024;
    {
        Nagger nagger(SIGUSR2);
        EXPECT_EQ(connection.end.recv_block(&msg, data), ReceiveTimeOut);
    }
    sigaction(SIGUSR2, &earlier, nullptr);
    EXPECT_GT(largest, 0);
    EXPECT_LT(largest, before + 8 * 1024);
}

TEST_F(IpctliRecords, DataThatMemoryDoesNotHoldIsReported)
{
    if (!MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, 32767, 0, 32767 * 1700, std::string(1700, 'f'))));
    const pid_t child = StartChild([&] {
        const MemoryLimit limit(24 << 20);
        TliMsgStruct msg;
        Buffer data;
        short code = 0;
        const std::string reports = Reports([&] { code = connection.end.recv_block(&msg, data); });
        CHILD_CHECK(reports == Report(ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY,
                                      "tcp_recv_block allocation of 55703900 bytes failed."));
        CHILD_CHECK(code == OutOfMemory);
        CHILD_CHECK(data.Size() == 0);
        CHILD_CHECK(Descriptor(connection.end) == -1);
    });
    EXPECT_EQ(WaitForExit(child), 0);
    EXPECT_TRUE(connection.peer.AtEnd());
}

TEST_F(IpctliRecords, SignalsOfTheCallerDoNotCutASendInHalf)
{
    const std::string text = Pattern(20 << 20);
    IPCTli listener;
    ASSERT_EQ(listener.Tprelisten("localhost", "orvd"), 1);
    const pid_t sender = StartChild([&] {
        listener.Tclose();
        struct sigaction action = {};
        action.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGUSR1, &action, nullptr);
        const Nagger nagger(SIGUSR1);
        IPCTli end;
        CHILD_CHECK(end.Topen("localhost", "orvd"));
        TliMsgStruct msg = Record();
        CHILD_CHECK(end.send_block(&msg, text.data(), long(text.size())) == 0);
        end.Tshutdown();
        CHILD_CHECK(end.Tclose() == 0);
    });
    IPCTli end;
    ASSERT_EQ(listener.Tlisten(), 1);
    ASSERT_EQ(end.Taccept(listener), 1);
    usleep(300000); // the sender waits for room, and signals come
    TliMsgStruct msg;
    Buffer data;
    ASSERT_EQ(end.recv_block(&msg, data), 0);
    EXPECT_TRUE(Bytes(data) == text);
    EXPECT_EQ(WaitForExit(sender), 0);
}

} // namespace
