// SPDX-License-Identifier: BSD-2-Clause
// Standard file streams for the library's own use, in the place of std::ifstream and std::ofstream.
#ifndef MISC_DETAIL_FILESTREAM_H
#define MISC_DETAIL_FILESTREAM_H

#include <cerrno>
#include <fstream>
#include <memory>
#include <new>

#include <sys/stat.h>

namespace zeloo {

/// The block that a file stream reads or writes in. A stream without one makes it itself when it opens a file, and
/// without memory throws and leaves the file open. A base class, so that it outlives the stream.
class StreamBlock {
protected:
    /// Opens the file `name` with `buffer`, which uses the block. False, with the reason in errno, when that fails.
    bool Open(std::filebuf* buffer, const char* name, std::ios::openmode mode)
    {
        const int size = 8192;
        block.reset(new (std::nothrow) char[size]);
        if (name == nullptr || block == nullptr) {
            errno = name == nullptr ? EFAULT : ENOMEM;
            return false;
        }
        buffer->pubsetbuf(block.get(), size);
        return buffer->open(name, mode) != nullptr;
    }

private:
    std::unique_ptr<char[]> block;
};

/// A file opened to read its bytes. A directory, which the host opens as well, does not open (EISDIR), nor does anything
/// without memory (ENOMEM); a null name is that of no file.
class InputFile : private StreamBlock, public std::ifstream {
public:
    explicit InputFile(const char* name)
    {
        if (IsDirectory(name)) {
            errno = EISDIR;
            setstate(failbit);
        } else if (!Open(rdbuf(), name, in | binary)) {
            setstate(failbit);
        }
    }

    /// The number of bytes from the start to the end; negative when the host knows no end. The next byte to be read is
    /// the first one then.
    std::streamoff Size()
    {
        seekg(0, end);
        const std::streamoff size = tellg();
        seekg(0, beg);
        return size;
    }

private:
    static bool IsDirectory(const char* name)
    {
        struct stat status;
        return name != nullptr && stat(name, &status) == 0 && S_ISDIR(status.st_mode);
    }
};

/// A file opened to write bytes: to append them, or in the place of those that it has. Without memory nothing is opened
/// (ENOMEM) and the file is left as it is.
class OutputFile : private StreamBlock, public std::ofstream {
public:
    enum Mode { Truncate, Append };
    OutputFile(const char* name, Mode mode)
    {
        if (!Open(rdbuf(), name, out | binary | (mode == Append ? app : trunc)))
            setstate(failbit);
    }
};

} // namespace zeloo

#endif
