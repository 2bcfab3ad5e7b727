// SPDX-License-Identifier: BSD-2-Clause
#include "durablefile.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static const std::size_t Step = 1 << 20; // bytes that are read or written at a time
static const int MostAside = 1000;       // files of a name that are set aside

// A descriptor that is closed with the object.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { Close(); }
    operator int() const { return fd; }
    // 0, or -1 with `errno`: a file system may tell only now that it could not write.
    int Close()
    {
        const int closed = fd >= 0 ? close(fd) : 0;
        fd = -1;
        return closed;
    }

private:
    int fd;
};

static int ReadAll(int fd, Buffer& content)
{
    struct stat status;
    if (fstat(fd, &status) != 0)
        return errno;
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    if (status.st_size > INT_MAX)
        return EFBIG;
    const unsigned size = static_cast<unsigned>(status.st_size);
    content.ReSize(size);
    if (content.Size() != size)
        return ENOMEM;
    for (unsigned at = 0; at < size;) {
        const ssize_t n = read(fd, &content[at], std::min<std::size_t>(size - at, Step));
        if (n == 0)
            return EIO; // it has become shorter while it was read
        if (n > 0)
            at += static_cast<unsigned>(n);
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

int ReadWholeFile(const char* path, Buffer& content)
{
    content.PurgeContents();
    const Descriptor fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)); // without waiting for who writes into a FIFO
    const int error = fd < 0 ? errno : ReadAll(fd, content);
    if (error != 0)
        content.PurgeContents();
    return error;
}

static int WriteAll(int fd, const char* bytes, std::size_t size)
{
    for (std::size_t at = 0; at < size;) {
        const ssize_t n = write(fd, bytes + at, std::min(size - at, Step));
        if (n == 0)
            return EIO;
        if (n > 0)
            at += static_cast<std::size_t>(n);
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

static int Sync(int fd)
{
    while (fsync(fd) != 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

int ReplaceFile(const char* path, const void* bytes, std::size_t size)
{
    const std::string half = std::string(path) + HalfWritten;
    Descriptor fd(open(half.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd < 0)
        return errno;
    int error = WriteAll(fd, static_cast<const char*>(bytes), size);
    if (error == 0)
        error = Sync(fd);
    if (fd.Close() != 0 && error == 0)
        error = errno;
    if (error == 0 && std::rename(half.c_str(), path) != 0)
        error = errno;
    if (error != 0)
        unlink(half.c_str());
    return error;
}

int MakeDirectory(const char* directory)
{
    if (mkdir(directory, 0755) != 0 && errno != EEXIST)
        return errno;
    const std::string path = directory;
    return SyncDirectory(path.substr(0, path.rfind('/') + 1).c_str());
}

static bool EndsIn(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

int ReadNames(DIR* files, std::vector<std::string>& names)
{
    names.clear();
    errno = 0;
    while (const dirent* file = readdir(files)) {
        const std::string name = file->d_name;
        if (EndsIn(name, HalfWritten))
            unlinkat(dirfd(files), name.c_str(), 0);
        else if (name[0] != '.')
            names.push_back(name);
        errno = 0;
    }
    const int error = errno;
    closedir(files);
    return error;
}

int SyncDirectory(const char* directory)
{
    const Descriptor fd(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd < 0 ? errno : Sync(fd);
}

int SetAside(const char* path)
{
    const std::string broken = std::string(path) + ".broken";
    std::string name = broken;
    for (int number = 2; link(path, name.c_str()) != 0; number++) {
        if (errno != EEXIST || number > MostAside)
            return errno;
        name = broken + "." + std::to_string(number);
    }
    return 0;
}
