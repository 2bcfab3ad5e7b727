// SPDX-License-Identifier: BSD-2-Clause
// protobuf (libprotobuf-dev): messages of four fields, each behind its length, through the coded streams as the code that
// protoc makes does it.
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format_lite.h>

#include "bench/peers/records.h"

namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;
using google::protobuf::io::CodedOutputStream;

// The tags of: sint32 number = 1; sint32 position = 2; uint32 size = 3; string text = 4.
const uint32_t NumberTag = 1 << 3;
const uint32_t PositionTag = 2 << 3;
const uint32_t SizeTag = 3 << 3;
const uint32_t TextTag = 4 << 3 | 2;

class Messages {
public:
    using Encoding = std::string;

    static void Write(const std::vector<Record>& records, Encoding& bytes)
    {
        google::protobuf::io::StringOutputStream target(&bytes);
        CodedOutputStream out(&target);
        const std::string text(Text);
        for (const Record& r : records)
            Write(r, text, out);
    }

    static std::size_t Size(const Encoding& bytes) { return bytes.size(); }

    template <class Take>
    static bool Read(const Encoding& bytes, std::size_t count, const Take& take)
    {
        CodedInputStream in(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<int>(bytes.size()));
        std::string text;
        for (std::size_t i = 0; i < count; i++) {
            uint32_t length = 0;
            Record r = {};
            if (!in.ReadVarint32(&length))
                return false;
            const CodedInputStream::Limit limit = in.PushLimit(static_cast<int>(length));
            if (!ReadFields(in, r, text))
                return false;
            in.PopLimit(limit);
            take(r, text);
        }
        return true;
    }

private:
    static void Write(const Record& r, const std::string& text, CodedOutputStream& out)
    {
        const uint32_t number = WireFormatLite::ZigZagEncode32(r.number);
        const uint32_t position = WireFormatLite::ZigZagEncode32(r.position);
        const auto length = static_cast<uint32_t>(text.size());
        out.WriteVarint32(static_cast<uint32_t>(
            4 + CodedOutputStream::VarintSize32(number) + CodedOutputStream::VarintSize32(position) +
            CodedOutputStream::VarintSize32(r.size) + CodedOutputStream::VarintSize32(length) + text.size()));
        out.WriteTag(NumberTag);
        out.WriteVarint32(number);
        out.WriteTag(PositionTag);
        out.WriteVarint32(position);
        out.WriteTag(SizeTag);
        out.WriteVarint32(r.size);
        out.WriteTag(TextTag);
        out.WriteVarint32(length);
        out.WriteString(text);
    }

    // Those up to the limit, in any order.
    static bool ReadFields(CodedInputStream& in, Record& r, std::string& text)
    {
        while (const uint32_t tag = in.ReadTag()) {
            uint32_t value = 0;
            if (!in.ReadVarint32(&value))
                return false;
            if (tag == NumberTag)
                r.number = static_cast<short>(WireFormatLite::ZigZagDecode32(value));
            else if (tag == PositionTag)
                r.position = WireFormatLite::ZigZagDecode32(value);
            else if (tag == SizeTag)
                r.size = value;
            else if (tag != TextTag || !in.ReadString(&text, static_cast<int>(value)))
                return false;
        }
        return true;
    }
};

const bool Registered = RecordRows<Messages>::Register("protobuf");

} // namespace
