// SPDX-License-Identifier: BSD-2-Clause
// msgpack (libmsgpack-dev): an array of four values a record. Records are read into memory that each uses again, which is
// the fastest of its ways.
#include <msgpack.h>

#include "bench/peers/records.h"

namespace {

// A block that grows as its packer wants.
class Block {
public:
    Block() { msgpack_sbuffer_init(&block); }
    ~Block() { msgpack_sbuffer_destroy(&block); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    msgpack_sbuffer block;
};

// The arrays of a block, one after the other.
class Reader {
public:
    explicit Reader(const Block& encoding) : bytes(encoding.block), zone(msgpack_zone_new(2048)) {}
    ~Reader() { msgpack_zone_free(zone); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool Next(Record& r, std::string& text)
    {
        msgpack_object record;
        msgpack_zone_clear(zone);
        const msgpack_unpack_return result = msgpack_unpack(bytes.data, bytes.size, &at, zone, &record);
        if ((result != MSGPACK_UNPACK_SUCCESS && result != MSGPACK_UNPACK_EXTRA_BYTES) ||
            record.type != MSGPACK_OBJECT_ARRAY || record.via.array.size != 4)
            return false;
        const msgpack_object* const fields = record.via.array.ptr;
        if (fields[3].type != MSGPACK_OBJECT_STR)
            return false;
        text.assign(fields[3].via.str.ptr, fields[3].via.str.size);
        return Number(fields[0], r.number) && Number(fields[1], r.position) && Number(fields[2], r.size);
    }

private:
    template <class N>
    static bool Number(const msgpack_object& field, N& n)
    {
        n = static_cast<N>(field.via.i64);
        return field.type == MSGPACK_OBJECT_POSITIVE_INTEGER || field.type == MSGPACK_OBJECT_NEGATIVE_INTEGER;
    }

    const msgpack_sbuffer& bytes;
    msgpack_zone* zone;
    std::size_t at = 0;
};

class Arrays {
public:
    using Encoding = Block;

    static void Write(const std::vector<Record>& records, Encoding& bytes)
    {
        msgpack_packer out;
        msgpack_packer_init(&out, &bytes.block, msgpack_sbuffer_write);
        for (const Record& r : records) {
            msgpack_pack_array(&out, 4);
            msgpack_pack_short(&out, r.number);
            msgpack_pack_int(&out, r.position);
            msgpack_pack_unsigned_int(&out, r.size);
            msgpack_pack_str(&out, RecordText);
            msgpack_pack_str_body(&out, Text, RecordText);
        }
    }

    static std::size_t Size(const Encoding& bytes) { return bytes.block.size; }

    template <class Take>
    static bool Read(const Encoding& bytes, std::size_t count, const Take& take)
    {
        Reader in(bytes);
        std::string text;
        for (std::size_t i = 0; i < count; i++) {
            Record r = {};
            if (!in.Next(r, text))
                return false;
            take(r, text);
        }
        return true;
    }
};

const bool Registered = RecordRows<Arrays>::Register("msgpack");

} // namespace
