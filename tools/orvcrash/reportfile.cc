// SPDX-License-Identifier: BSD-2-Clause
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "reports.h"
#include "text.h"

namespace orvcrash {

static const size_t BytesAtOnce = 1024 * 1024;
static const size_t MostOfLine = 64 * 1024; // of a heading that are looked at
static const uint64_t MostOfReport = 256ull * 1024 * 1024;

// Whether `text` is a date: digits where `form` has zeros.
static bool IsDate(std::string_view text)
{
    static const std::string_view form = "00/00/0000 00:00:00";
    return text.size() == form.size() && std::equal(form.begin(), form.end(), text.begin(), [](char wanted, char c) {
               return wanted == '0' ? c >= '0' && c <= '9' : c == wanted;
           });
}

bool ReadHeading(std::string_view line, Heading* heading)
{
    heading->line = line;
    std::string_view date, number;
    if (!TakeUntil(line, ". SIGNAL ", &date) || !IsDate(date) || !TakeUntil(line, " detected. ProgInfo=", &number) ||
        !ReadDecimal(number, &heading->signal))
        return false;
    heading->date = date;
    heading->command = line;
    return true;
}

// The file may be anything: opening must not wait, nor have effects.
ReportFile::ReportFile(const std::string& path) : fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))
{
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0)
        problem = strerror(errno);
    else if (!S_ISREG(status.st_mode))
        problem = "not a regular file";
    else
        Look(static_cast<uint64_t>(status.st_size));
}

ReportFile::~ReportFile()
{
    if (fd >= 0)
        close(fd);
}

std::string ReportFile::Read(uint64_t from, uint64_t to) const
{
    std::string text(to - from, '\0');
    size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t n = pread(fd, text.data() + filled, text.size() - filled, static_cast<off_t>(from + filled));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        filled += static_cast<size_t>(n);
    }
    text.resize(filled);
    return text;
}

void ReportFile::TakeLine(uint64_t at, std::string_view beginning)
{
    Heading heading;
    if (!ReadHeading(beginning, &heading))
        return;
    if (!parts.empty())
        parts.back().to = at;
    parts.push_back({at, 0, std::string(beginning)});
}

// Goes over the file once. A line that goes from one block to the next is put together, as far as it matters.
void ReportFile::Look(uint64_t end)
{
    std::string line;
    uint64_t lineAt = 0;
    while (size < end) {
        const std::string block = Read(size, std::min<uint64_t>(size + BytesAtOnce, end));
        if (block.empty())
            break;
        std::string_view rest = block;
        while (!rest.empty()) {
            const size_t length = rest.find('\n');
            const bool isWhole = length != std::string_view::npos;
            line += rest.substr(0, std::min(length, MostOfLine - line.size()));
            const size_t taken = isWhole ? length + 1 : rest.size();
            rest.remove_prefix(taken);
            size += taken;
            if (!isWhole)
                continue;
            TakeLine(lineAt, line);
            line.clear();
            lineAt = size;
        }
    }
    if (!line.empty())
        TakeLine(lineAt, line);
    if (!parts.empty())
        parts.back().to = size;
}

void ReportFile::KeepBeginning()
{
    const uint64_t end = parts.empty() ? size : parts.front().from;
    const std::string beginning = Read(0, std::min(end, MostOfReport));
    if (beginning.find_first_not_of('\n') != std::string::npos)
        parts.insert(parts.begin(), {0, end, ""});
}

std::string ReportFile::Text(size_t number, bool* isCut) const
{
    const Part& part = parts[number];
    *isCut = part.to - part.from > MostOfReport;
    return Read(part.from, *isCut ? part.from + MostOfReport : part.to);
}

} // namespace orvcrash
