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
    /// Has `buffer` use the block; false, with ENOMEM in errno, when memory fails.
    bool UseBlock(std::filebuf* buffer)
    {
        const int size = 8192;
        block.reset(new (std::nothrow) char[size]);
        if (block != nullptr)
            return buffer->pubsetbuf(block.get(), size) != nullptr;
        errno = ENOMEM;
        return false;
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
        struct stat status;
        const bool isDirectory = name != nullptr && stat(name, &status) == 0 && S_ISDIR(status.st_mode);
        if (isDirectory)
            errno = EISDIR;
        if (isDirectory || !UseBlock(rdbuf()))
            setstate(failbit);
        else
            open(name, in | binary);
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
};

/// A file opened to write bytes: to append them, or in the place of those that it has. Without memory nothing is opened
/// (ENOMEM) and the file is left as it is.
class OutputFile : private StreamBlock, public std::ofstream {
public:
    enum Mode { Truncate, Append };
    OutputFile(const char* name, Mode mode)
    {
        if (UseBlock(rdbuf()))
            open(name, out | binary | (mode == Append ? app : trunc));
        else
            setstate(failbit);
    }
};

} // namespace zeloo

#endif
