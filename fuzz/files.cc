// SPDX-License-Identifier: BSD-2-Clause
// Files read whole and written: what comes out is what was put in.
#include <fstream>
#include <memory>

#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/fileinfo.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

static std::string Bytes(const Buffer& buffer)
{
    const void* bytes = buffer;
    return buffer.Size() > 0 ? std::string(static_cast<const char*>(bytes), buffer.Size()) : std::string();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const std::string path = fuzzing::Directory() + "/file";
    const char* name = path.c_str();
    Input in(data, size);
    const short append = in.Flag();
    const unsigned from = in.Number<uint16_t>();
    const unsigned length = in.Number<uint16_t>();
    const std::string added = in.Run();
    const std::string content = in.Rest();

    fuzzing::WriteFile(name, content);
    Buffer buffer;
    FUZZ_CHECK(buffer.LoadBufferFromFile(name) == 1 && Bytes(buffer) == content);
    const std::unique_ptr<char[]> text(CString::FileNameToCharPtr(name));
    FUZZ_CHECK(std::memcmp(text.get(), content.c_str(), content.size() + 1) == 0);

    std::ifstream stream(name, std::ios::binary);
    stream.seekg(static_cast<std::streamoff>(std::min<std::size_t>(from, content.size())));
    buffer.LoadBufferFromFile(stream, length);
    std::string expected = content.substr(std::min<std::size_t>(from, content.size()), length);
    expected.resize(length, '\0');
    FUZZ_CHECK(Bytes(buffer) == expected);

    buffer.PurgeContents();
    buffer.Append(added.data(), static_cast<unsigned>(added.size()));
    FUZZ_CHECK(buffer.SaveBufferToFile(name, append) == 0);
    const std::string whole = (append ? content : std::string()) + added;
    FUZZ_CHECK(FileInfo::FileSize(name) == static_cast<long>(whole.size()));
    FUZZ_CHECK(buffer.LoadBufferFromFile(name) == 1 && Bytes(buffer) == whole);
    return 0;
}
