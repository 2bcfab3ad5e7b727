// SPDX-License-Identifier: BSD-2-Clause
// The receiving end of a connection, whatever its peer sends: real connections over the loopback.
#include <algorithm>
#include <string>
#include <vector>

#include "Misc/buffer.h"
#include "Misc/ipctli.h"

#include "fuzz/fuzzing.h"
#include "tests/support/raw_tcp_peer.h"

using fuzzing::Input;
using namespace testing_support;

namespace {

const std::size_t MostBytes = 60000; // that the host's buffers surely hold while nobody reads

// A record with any header, or of any bytes.
std::string AnyRecord(Input& in)
{
    if (in.Below(8) == 0)
        return in.Bytes(in.Number<uint16_t>() % 2000);
    RawRecord record = MakeRecord(in.Number<int16_t>(), 0, 0, 0, in.Run());
    record.Put32(200, record.Get16(26));
    if (in.Below(4) == 0)
        record.Put16(24, in.Flag() ? in.Number<int16_t>() : static_cast<int16_t>(in.Below(4)));
    if (in.Below(4) == 0)
        record.Put16(26, in.Number<int16_t>());
    if (in.Below(4) == 0)
        record.Put32(28, in.Flag() ? in.Number<int32_t>() : in.Number<int16_t>());
    if (in.Below(4) == 0)
        record.Put32(200, in.Flag() ? in.Number<int32_t>() : in.Number<int16_t>());
    if (in.Below(8) == 0)
        record.Put(34, std::string(80u * (1 + in.Below(2)), 'x'));
    return in.Below(16) == 0 ? record.bytes.substr(0, in.Number<uint16_t>() % 1904) : record.bytes;
}

// An event whose blocks come in any order but for the first.
std::string SoundRecords(Input& in, std::string& data)
{
    const std::size_t size = in.Number<uint16_t>() % 8000;
    data = in.Bytes(size);
    data.resize(size, 'd');
    std::vector<std::string> records;
    const int parts = static_cast<int>(size / 1700);
    for (int i = 0; i <= parts; i++) {
        const std::size_t offset = static_cast<std::size_t>(i) * 1700;
        records.push_back(MakeRecord(5, parts - i, static_cast<int32_t>(offset), static_cast<int32_t>(size),
                                     data.substr(offset, 1700))
                              .bytes);
    }
    for (std::size_t i = records.size(); i > 2; i--)
        std::swap(records[i - 1], records[1 + in.Byte() % (i - 1)]);
    std::string bytes;
    for (const std::string& record : records)
        bytes += record;
    return bytes;
}

void ReceiveAll(IPCTli& end, const std::vector<std::string>& sound)
{
    TliMsgStruct header;
    Buffer data;
    for (std::size_t events = 0;; events++) {
        const short code = end.recv_block(&header, data);
        if (events < sound.size()) {
            FUZZ_CHECK(code == 0 && data.Size() == sound[events].size());
            FUZZ_CHECK(data.Size() == 0 ||
                       std::memcmp(static_cast<const void*>(data), sound[events].data(), data.Size()) == 0);
        }
        if (code != 0) {
            FUZZ_CHECK(data.Size() == 0);
            return;
        }
        FUZZ_CHECK(header.alloc_data_length >= 0 && data.Size() == static_cast<unsigned>(header.alloc_data_length));
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzing::NameProgram();
    fuzzing::WriteFile("/etc/services", "orvd 4711/tcp\n");
    fuzzing::WriteFile("/etc/hosts", "127.0.0.1 localhost\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static IPCTli listener;
    static const bool listens = listener.Tprelisten(nullptr, "orvd") == 1;
    FUZZ_CHECK(listens);
    Input in(data, size);
    std::vector<std::string> sound;
    std::string bytes;
    for (unsigned n = in.Below(4); n > 0; n--) {
        sound.emplace_back();
        bytes += SoundRecords(in, sound.back());
    }
    while (!in.IsAtEnd() && bytes.size() < MostBytes - 4000)
        bytes += AnyRecord(in);

    RawSocket peer;
    FUZZ_CHECK(peer.Connect());
    FUZZ_CHECK(listener.Tlisten() == 1);
    IPCTli end;
    FUZZ_CHECK(end.Taccept(listener) == 1);
    FUZZ_CHECK(peer.Send(bytes));
    shutdown(peer.fd, SHUT_WR);
    ReceiveAll(end, sound);
    return 0;
}
