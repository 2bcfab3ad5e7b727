// msgpack (libmsgpack-dev): four values a record, one behind the other as in an object stream, and read one by one.
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

class Values {
public:
    using Encoding = Block;

    static void Write(const std::vector<Record>& records, Encoding& bytes)
    {
        msgpack_packer out;
        msgpack_packer_init(&out, &bytes.block, msgpack_sbuffer_write);
        for (const Record& r : records) {
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
        bool isGood = true;
        for (std::size_t i = 0; i < count && isGood; i++) {
            Record r = {};
            isGood = in.Number(r.number) && in.Number(r.position) && in.Number(r.size) && in.String(text);
            if (isGood)
                take(r, text);
        }
        return isGood;
    }

private:
    class Reader {
    public:
        explicit Reader(const Encoding& encoding) : bytes(encoding.block) { msgpack_unpacked_init(&value); }
        ~Reader() { msgpack_unpacked_destroy(&value); }
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

        template <class N>
        bool Number(N& n)
        {
            if (!Next())
                return false;
            n = static_cast<N>(value.data.via.i64);
            return value.data.type == MSGPACK_OBJECT_POSITIVE_INTEGER ||
                   value.data.type == MSGPACK_OBJECT_NEGATIVE_INTEGER;
        }

        bool String(std::string& text)
        {
            if (!Next() || value.data.type != MSGPACK_OBJECT_STR)
                return false;
            text.assign(value.data.via.str.ptr, value.data.via.str.size);
            return true;
        }

    private:
        bool Next() { return msgpack_unpack_next(&value, bytes.data, bytes.size, &at) == MSGPACK_UNPACK_SUCCESS; }

        const msgpack_sbuffer& bytes;
        msgpack_unpacked value;
        std::size_t at = 0;
    };
};

const bool Registered = RecordRows<Values>::Register("msgpack");

} // namespace
