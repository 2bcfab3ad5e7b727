// SPDX-License-Identifier: BSD-2-Clause
// Buffer against std::string, and its dumps against their form.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "Misc/buffer.h"
#include "Misc/cstring.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

static std::string Bytes(const Buffer& buffer)
{
    const void* bytes = buffer;
    return buffer.Size() > 0 ? std::string(static_cast<const char*>(bytes), buffer.Size()) : std::string();
}

// Bytes that an operation leaves unset take the model's value.
static void Settle(Buffer& buffer, const std::string& model, std::size_t from, std::size_t to)
{
    FUZZ_CHECK(buffer.Size() == model.size());
    for (std::size_t i = from; i < to; i++)
        buffer[static_cast<unsigned>(i)] = model[i];
}

static void Put(Input& in, Buffer& buffer, std::string& model)
{
    const unsigned pos = in.Number<uint16_t>() % 5000;
    const std::string bytes = in.Run();
    const std::size_t before = model.size();
    buffer.PutDataAt(pos, bytes.data(), static_cast<unsigned>(bytes.size()));
    model.resize(std::max(before, pos + bytes.size()), '?');
    model.replace(pos, bytes.size(), bytes);
    Settle(buffer, model, before, pos);
}

static void Get(Input& in, const Buffer& buffer, const std::string& model)
{
    const unsigned pos = in.Flag() ? in.Number<unsigned>() : in.Byte();
    const unsigned len = in.Number<uint16_t>();
    std::string got(len + 1, '#');
    buffer.GetDataAt(pos, got.data(), len);
    const std::string part = pos < model.size() ? model.substr(pos, len) : std::string();
    FUZZ_CHECK(got == part + std::string(got.size() - part.size(), '#'));
}

static std::string Printf(const char* format, unsigned a, unsigned b = 0)
{
    char text[64];
    std::snprintf(text, sizeof text, format, a, b);
    return text;
}

static std::string HexDump(const std::string& bytes)
{
    const unsigned n = static_cast<unsigned>(bytes.size());
    std::string dump = Printf("HexDump for %u (%04x) bytes\n0000: ", n, n), side;
    for (unsigned i = 1; i <= n; i++) {
        const unsigned char byte = static_cast<unsigned char>(bytes[i - 1]);
        dump += Printf("%02x ", byte);
        side += std::isprint(byte) ? static_cast<char>(byte) : ' ';
        if (i % 16 == 0) {
            dump += ' ' + side + '\n';
            side.clear();
            if (i < n)
                dump += Printf("%04x: ", i);
        }
    }
    for (unsigned i = n; i % 16 != 0; i++)
        dump += "   ";
    return dump + ' ' + side + '\n';
}

static void CheckDumps(const std::string& model, const Buffer& buffer)
{
    std::ostringstream out;
    buffer.dumpOn(out);
    std::string dump = out.str(), expected = HexDump(model);
    for (std::string* each : {&dump, &expected}) // how many blanks end a row is the unit tests' business
        for (std::size_t at; (at = each->find(" \n")) != std::string::npos;)
            each->erase(at, 1);
    FUZZ_CHECK(dump == expected);
    CString text;
    Buffer::hexdumpOn(buffer, buffer.Size(), text);
    FUZZ_CHECK(text.strlen() >= 3 * model.size());
}

// Blocks that change hands, single bytes, streams and dumps.
static void StepAside(Input& in, Buffer& buffer, std::string& model)
{
    switch (in.Below(5)) {
    case 0: {
        const unsigned size = buffer.Size();
        void* block = buffer.ReleasePtr();
        FUZZ_CHECK(buffer.Size() == 0 && (block != nullptr) == (size > 0));
        buffer.AssignPtr(block, size);
        break;
    }
    case 1: {
        const unsigned i = in.Number<unsigned>();
        const char c = in.Char();
        buffer[i] = c;
        if (i < model.size())
            model[i] = c;
        FUZZ_CHECK(buffer[i] == c);
        break;
    }
    case 2: {
        const std::string source = in.Run();
        const unsigned len = in.Byte();
        std::istringstream stream(source);
        FUZZ_CHECK(buffer.LoadBufferFromFile(stream, len) == 0);
        model = source.substr(0, len) + std::string(len - std::min<std::size_t>(len, source.size()), '\0');
        break;
    }
    case 3: {
        std::ostringstream whole, text;
        Buffer::BlockWrite(buffer, buffer.Size(), whole, 0);
        Buffer::BlockWrite(buffer, buffer.Size(), text, 1);
        FUZZ_CHECK(whole.str() == model && text.str() == model.substr(0, model.find('\0')));
        break;
    }
    default: CheckDumps(model, buffer);
    }
}

static void Step(Input& in, Buffer (&buffers)[2], std::string (&models)[2])
{
    const unsigned which = in.Below(2);
    Buffer& buffer = buffers[which];
    std::string& model = models[which];
    switch (in.Below(9)) {
    case 0: Put(in, buffer, model); break;
    case 1: Get(in, buffer, model); break;
    case 2: {
        const std::string bytes = in.Run();
        buffer.Append(bytes.data(), static_cast<unsigned>(bytes.size()));
        model += bytes;
        break;
    }
    case 3: {
        const std::string text = in.Text();
        buffer.Append(text.c_str());
        model += text;
        break;
    }
    case 4: {
        const unsigned n = in.Number<uint16_t>() % 3000;
        buffer.ReSize(n);
        model.assign(n, '?');
        Settle(buffer, model, 0, n);
        break;
    }
    case 5: {
        const unsigned other = in.Below(2);
        buffer = buffers[other];
        model = models[other];
        break;
    }
    case 6:
        buffer.PurgeContents();
        model.clear();
        break;
    case 7: { // from within itself
        const std::size_t at = model.empty() ? 0 : in.Byte() % model.size();
        const std::string part = model.substr(at, in.Byte());
        const char* source = model.empty() ? nullptr : &buffer[static_cast<unsigned>(at)];
        if (model.size() > 20000)
            break;
        buffer.Append(source, static_cast<unsigned>(part.size()));
        model += part;
        break;
    }
    default: StepAside(in, buffer, model);
    }
}

static void CheckTexts(const std::string& bytes)
{
    const unsigned size = static_cast<unsigned>(bytes.size());
    const bool ascii = size > 0 && bytes.find('\0') == size - 1 &&
                       std::all_of(bytes.begin(), bytes.end(), [](char c) { return (c & 0x80) == 0; });
    FUZZ_CHECK(Buffer::IsASCIIData(bytes.data(), size) == ascii);
    unsigned char* decoded = Buffer::ASCIIToHex(bytes.data(), size);
    FUZZ_CHECK(decoded == nullptr);
    std::free(decoded);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    Buffer buffers[2];
    std::string models[2];
    for (int steps = 0; steps < 64 && !in.IsAtEnd(); steps++) {
        Step(in, buffers, models);
        for (unsigned i = 0; i < 2; i++) {
            FUZZ_CHECK(Bytes(buffers[i]) == models[i]);
            FUZZ_CHECK(Bytes(Buffer(buffers[i])) == models[i]);
            FUZZ_CHECK(buffers[i].IsNullTerminated() == (!models[i].empty() && models[i].back() == '\0'));
            const char* text = buffers[i].GetCString();
            FUZZ_CHECK(std::memcmp(text, models[i].c_str(), models[i].size()) == 0 &&
                       (buffers[i].IsNullTerminated() || text[models[i].size()] == '\0'));
        }
    }
    CheckTexts(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
