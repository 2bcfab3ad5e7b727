// SPDX-License-Identifier: BSD-2-Clause
// The reports of a crash file.
#ifndef TOOLS_ORVCRASH_REPORTS_H
#define TOOLS_ORVCRASH_REPORTS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvcrash {

/// What the first line of a report says.
struct Heading {
    std::string line; // all of it
    std::string date;
    long signal = 0;
    std::string command; // its arguments, with a blank between them
};

/// Whether a line is one, and what it says.
bool ReadHeading(std::string_view line, Heading* heading);

struct Frame {
    uint64_t address, returnAddress;
};

struct Object {
    long tag;
    std::string text;
    bool isWhole;
};

/// One report, as far as it can be read.
struct Report {
    bool hasHeading = false;
    Heading heading;
    std::vector<std::pair<std::string, uint64_t>> registers;
    bool hasFrames = false;
    std::vector<Frame> frames;
    size_t framesLeftOut = 0; // by the capture, of a deep recursion
    size_t leftOutBehind = 0; // this number of frames
    std::string stackHeading; // empty without a stack
    std::vector<std::string> stackRows;
    bool hasObjects = false;
    std::vector<std::string> objectLines; // what stands before, between and behind the objects
    std::vector<Object> objects;
    std::vector<std::string> remarks; // of the capture, about what it has left out
    std::vector<std::string> damage;  // what is missing, or not as it should be

    bool IsEmpty() const { return registers.empty() && !hasFrames && stackHeading.empty() && !hasObjects; }
    /// The value of a register; false where the report does not have it.
    bool Register(std::string_view label, uint64_t* value) const;
};

/// Reads one report; `text` begins with its heading, where it has one.
Report ReadReport(std::string_view text);

/// A file with reports, or with blocks of a module map. It may be of any size: only what is asked for is kept in memory.
class ReportFile {
public:
    /// Opens the file and looks where its reports are. When that fails `Problem` says why.
    explicit ReportFile(const std::string& path);
    ~ReportFile();
    ReportFile(const ReportFile&) = delete;
    ReportFile& operator=(const ReportFile&) = delete;

    const std::string& Problem() const { return problem; }
    /// How many there are. What stands before the first heading counts as one if `keepsBeginning` was called.
    size_t Count() const { return parts.size(); }
    /// The first line of one of them; of a very long one only its beginning.
    const std::string& HeadingLine(size_t number) const { return parts[number].heading; }
    /// The text of one of them. Of one that is larger than 256 MB the beginning, and `*isCut` is set.
    std::string Text(size_t number, bool* isCut) const;
    /// Makes what stands before the first heading part 0, if there is more than empty lines.
    void KeepBeginning();

private:
    struct Part {
        uint64_t from, to;
        std::string heading;
    };
    void Look(uint64_t end);
    void TakeLine(uint64_t at, std::string_view beginning);
    std::string Read(uint64_t from, uint64_t to) const;

    int fd;
    std::string problem;
    uint64_t size = 0;
    std::vector<Part> parts;
};

} // namespace orvcrash

#endif
