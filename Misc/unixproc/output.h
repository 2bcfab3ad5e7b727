// What a child process writes.
#ifndef MISC_UNIXPROC_OUTPUT_H
#define MISC_UNIXPROC_OUTPUT_H

#include <cstddef>

#include <sys/types.h>

class Buffer;

namespace zeloo {

/// Output collected in one growing block, since every Buffer::Append copies the whole buffer.
class CollectedOutput {
public:
    CollectedOutput() : block(nullptr), used(0), capacity(0) {}
    ~CollectedOutput();
    CollectedOutput(const CollectedOutput&) = delete;
    CollectedOutput& operator=(const CollectedOutput&) = delete;

    /// read(2) of at most BlockSize bytes, with its result. They are dropped when there is no memory for them.
    ssize_t ReadFrom(int fd);
    /// Makes what was collected the contents of `output`, which is empty.
    void HandTo(Buffer& output);

private:
    static const std::size_t BlockSize = 16384;

    bool MakeRoom(std::size_t size);
    bool Grow(std::size_t size);

    char* block;
    std::size_t used;
    std::size_t capacity;
    char spare[BlockSize];
};

} // namespace zeloo

#endif
