// SPDX-License-Identifier: BSD-2-Clause
// What records say of their blocks, against an account of every part and byte; and records of any bytes, looked at and
// shown.
#include <algorithm>
#include <set>
#include <sstream>
#include <vector>

#include "Misc/ipcq.h"
#include "Misc/ipctli.h"
#include "Misc/wire/ranges.h"
#include "Misc/wire/records.h"
#include "Misc/wire/transfer.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;
using namespace zeloo::wire;

namespace {

const int Places = 400;

void CheckRanges(Input in)
{
    Ranges ranges;
    std::vector<char> model(Places);
    for (int i = 0; i < 100 && !in.IsAtEnd(); i++) {
        const int begin = static_cast<int>(in.Byte());
        const int end = begin + static_cast<int>(in.Below(Places - 255));
        const auto from = model.begin() + begin, to = model.begin() + end;
        const bool overlaps = std::find(from, to, 1) != to;
        FUZZ_CHECK(ranges.Add(begin, end) == (overlaps ? Ranges::Overlaps : Ranges::Added));
        if (!overlaps)
            std::fill(from, to, 1);
        FUZZ_CHECK(ranges.Count() == std::count(model.begin(), model.end(), 1));
        if (in.Below(64) == 0) {
            ranges.Clear();
            model.assign(Places, 0);
        }
    }
}

// Takes the blocks of one event as Gatherer does, byte by byte.
class Account {
public:
    Gatherer::Result Take(const Block& block)
    {
        if (parts.empty() && block.partsLeft >= 0) {
            total = block.total;
            count = block.partsLeft + 1;
        }
        const int64_t end = static_cast<int64_t>(block.offset) + block.length;
        if (block.total != total || block.offset < 0 || block.length < 0 || end > total || block.partsLeft < 0 ||
            block.partsLeft >= count || (block.isInline && block.length > MostInlineData))
            return Gatherer::Misfit;
        if (!parts.insert(block.partsLeft).second)
            return Gatherer::Misfit;
        bytes.resize(static_cast<std::size_t>(std::max<int64_t>(end, static_cast<int64_t>(bytes.size()))));
        const auto from = bytes.begin() + block.offset, to = from + block.length;
        if (std::find(from, to, 1) != to)
            return Gatherer::Misfit;
        std::fill(from, to, 1);
        if (static_cast<int>(parts.size()) == count)
            return std::count(bytes.begin(), bytes.end(), 1) == total ? Gatherer::Whole : Gatherer::Misfit;
        return Gatherer::More; // the Gatherer may know better: the rest can be more than the records left can carry
    }

private:
    int32_t total = 0;
    int count = 0;
    std::set<int> parts;
    std::vector<char> bytes;
};

Block AnyBlock(Input& in, int32_t total)
{
    Block block;
    block.total = in.Below(16) == 0 ? in.Number<int32_t>() : total;
    block.offset = in.Below(16) == 0 ? in.Number<int32_t>() : in.Number<int16_t>();
    block.length = in.Below(16) == 0 ? in.Number<int32_t>() : in.Number<int16_t>() % 2048;
    block.partsLeft = in.Below(16) == 0 ? in.Number<int16_t>() : in.Below(6);
    block.isInline = in.Below(4) != 0;
    return block;
}

void CheckGatherer(Input in)
{
    const int32_t total = in.Number<int16_t>() % 5000;
    Gatherer gatherer;
    Account account;
    for (int i = 0; i < 20 && !in.IsAtEnd(); i++) {
        const Block block = AnyBlock(in, total);
        if (block.length > 3000 || block.offset > 40000)
            return; // the account would take too long
        const Gatherer::Result result = i == 0 ? gatherer.Begin(block) : gatherer.Add(block);
        const Gatherer::Result expected = account.Take(block);
        FUZZ_CHECK(result == expected || (result == Gatherer::Misfit && expected == Gatherer::More));
        if (result != Gatherer::More)
            return;
    }
}

// Data of any length, cut into blocks that come in any order, comes together.
void CheckCutting(Input in)
{
    const int32_t size = static_cast<int32_t>(in.Number<uint16_t>()) % 3000;
    Cutter cutter(size, 1 + static_cast<int32_t>(in.Number<uint16_t>()) % MostInlineData);
    std::vector<Block> blocks;
    for (; !cutter.IsDone(); cutter.Advance())
        blocks.push_back(cutter.Current());
    for (std::size_t i = blocks.size(); i > 2; i--)
        std::swap(blocks[i - 1], blocks[1 + in.Byte() % (i - 1)]);
    Gatherer gatherer;
    int64_t bytes = 0;
    for (std::size_t i = 0; i < blocks.size(); i++) {
        const Gatherer::Result result = i == 0 ? gatherer.Begin(blocks[i]) : gatherer.Add(blocks[i]);
        FUZZ_CHECK(result == (i + 1 < blocks.size() ? Gatherer::More : Gatherer::Whole));
        bytes += blocks[i].length;
    }
    FUZZ_CHECK(bytes == size);
}

template <class Record>
Record AnyRecord(Input& in)
{
    Record record;
    std::memset(static_cast<void*>(&record), 0, sizeof record);
    const std::string bytes = in.Rest().substr(0, sizeof record);
    std::memcpy(static_cast<void*>(&record), bytes.data(), bytes.size());
    return record;
}

void CheckRecords(Input in)
{
    const std::size_t length = in.Number<uint16_t>() % 2200;
    const int64_t segment = in.Number<int16_t>();
    Input copy = in;
    const IPCQMessage message = AnyRecord<IPCQMessage>(in);
    const TliMsgStruct record = AnyRecord<TliMsgStruct>(copy);
    std::ostringstream out;
    DumpIPCMessage(&message, out);
    DumpTliMessage(&record, out);
    FUZZ_CHECK(HasSoundTexts(record) ==
               (std::memchr(record.senders_version, 0, 20) != nullptr &&
                std::memchr(record.orignode, 0, 80) != nullptr && std::memchr(record.origprog, 0, 80) != nullptr));
    const long self = 4711;
    const bool starts = StartsEvent(message, length, segment, self);
    if (ContinuesEvent(message, length, segment) || starts)
        FUZZ_CHECK(IsComplete(message, length) && length >= 300u + static_cast<unsigned>(message.msg_data_len));
    if (!starts)
        return;
    FUZZ_CHECK(message.senders_pid != self && message.alloc_data_length >= 0);
    ReceivingSide side(message, self);
    for (int i = 0; i < 3; i++)
        side.TakeBlock(message, length, segment);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    switch (in.Below(4)) {
    case 0: CheckRanges(in); break;
    case 1: CheckGatherer(in); break;
    case 2: CheckCutting(in); break;
    default: CheckRecords(in);
    }
    return 0;
}
