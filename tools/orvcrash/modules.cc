// SPDX-License-Identifier: BSD-2-Clause
#include "modules.h"

#include "text.h"

namespace orvcrash {

static const size_t LongestBuildId = 128; // digits
static const size_t LongestPath = 4096;

// Puts the characters back that a map writes as \NNN.
static std::string Unescaped(std::string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        int value = 0;
        size_t digits = 0;
        while (text[i] == '\\' && digits < 3 && i + digits + 1 < text.size() && text[i + digits + 1] >= '0' &&
               text[i + digits + 1] <= '7')
            value = value * 8 + (text[i + ++digits] - '0');
        if (digits == 3 && value > 0 && value < 256) {
            result += static_cast<char>(value);
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

static bool ReadModule(std::string_view line, Module* module)
{
    std::string_view low, high, bias, id;
    if (!TakePrefix(line, "low=") || !TakeUntil(line, "\thigh=", &low) || !TakeUntil(line, "\tbias=", &high) ||
        !TakeUntil(line, "\tbuildid=", &bias) || !TakeUntil(line, "\tpath=", &id))
        return false;
    if (!ReadHex(low, &module->low) || !ReadHex(high, &module->high) || !ReadHex(bias, &module->bias) ||
        module->low >= module->high || id.size() > LongestBuildId || line.size() > 4 * LongestPath ||
        id.find_first_not_of("0123456789abcdef") != std::string_view::npos)
        return false;
    module->buildId = id;
    module->path = Unescaped(line);
    return true;
}

static bool ReadHead(std::string_view line, long* pid, long* count)
{
    std::string_view number;
    return TakePrefix(line, "pid=") && TakeUntil(line, "\tmodules=", &number) && ReadDecimal(number, pid) &&
           ReadDecimal(line, count);
}

ModuleBlock ReadModules(std::string_view text)
{
    ModuleBlock block;
    long count = -1;
    size_t strange = 0;
    ForEachLine(text, [&](std::string_view line) {
        Module module;
        if (count < 0) // a heading may have several lines
            ReadHead(line, &block.pid, &count);
        else if (ReadModule(line, &module))
            block.modules.push_back(std::move(module));
        else if (!line.empty())
            strange++;
    });
    if (count < 0)
        block.damage.emplace_back("the map has no modules for this report");
    else if (static_cast<size_t>(count) > block.modules.size())
        block.damage.push_back("the map names " + std::to_string(block.modules.size()) + " of " +
                               std::to_string(count) + " modules");
    if (strange != 0)
        block.damage.push_back(std::to_string(strange) + " line(s) of the map are not understood");
    return block;
}

std::string MapOf(const std::string& crashFile)
{
    for (const char* old : {"", ".old"}) {
        const std::string suffix = std::string(".sig") + old;
        if (crashFile.size() > suffix.size() &&
            crashFile.compare(crashFile.size() - suffix.size(), suffix.size(), suffix) == 0)
            return crashFile.substr(0, crashFile.size() - suffix.size()) + ".map" + old;
    }
    return "";
}

long BlockOf(const ReportFile& reports, size_t number, const ReportFile& map)
{
    const std::string& heading = reports.HeadingLine(number);
    if (heading.empty())
        return -1;
    size_t behind = 0;
    for (size_t i = number + 1; i < reports.Count(); i++)
        behind += reports.HeadingLine(i) == heading ? 1 : 0;
    for (size_t i = map.Count(); i-- > 0;)
        if (map.HeadingLine(i) == heading && behind-- == 0)
            return static_cast<long>(i);
    return -1;
}

} // namespace orvcrash
