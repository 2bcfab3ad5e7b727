// SPDX-License-Identifier: BSD-2-Clause
#include "table.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>

namespace orvstat {

static const char Nothing[] = "-";
static const size_t Gap = 2; // blanks between two columns

static const char* ColourOf(Tone tone)
{
    static const char* const colours[] = {"", "\033[32m", "\033[33m", "\033[1;31m"}; // in the order of the tones
    return colours[static_cast<int>(tone)];
}

std::string Visible(const std::string& text)
{
    std::string visible = text;
    for (char& c : visible)
        if (!std::isprint(static_cast<unsigned char>(c)))
            c = '?';
    return visible;
}

static std::string TextOf(const std::string& value)
{
    if (value.empty())
        return Nothing;
    return Visible(value);
}

// Both forms have the same width.
static std::string TextOf(Time time, int64_t now)
{
    const time_t moments[] = {static_cast<time_t>(time.seconds), static_cast<time_t>(now)};
    struct tm then = {};
    struct tm today = {};
    localtime_r(&moments[0], &then);
    localtime_r(&moments[1], &today);
    const bool isToday = 1000 * then.tm_year + then.tm_yday == 1000 * today.tm_year + today.tm_yday;
    char text[40];
    std::strftime(text, sizeof text, isToday ? "%H:%M:%S" : "%m/%d/%y", &then);
    return text;
}

static std::string Joined(const std::vector<long>& numbers)
{
    std::string text;
    for (const long number : numbers)
        text += (text.empty() ? "" : ",") + std::to_string(number);
    return text;
}

static std::string TextOf(const Cell& cell, int64_t now)
{
    if (const auto* text = std::get_if<std::string>(&cell.value))
        return TextOf(*text);
    if (const auto* number = std::get_if<int64_t>(&cell.value))
        return std::to_string(*number);
    if (const auto* time = std::get_if<Time>(&cell.value))
        return TextOf(*time, now);
    if (const auto* numbers = std::get_if<std::vector<long>>(&cell.value))
        return TextOf(Joined(*numbers));
    return Nothing;
}

namespace {

// A line of the text, before it is known how wide the columns are.
struct Line {
    std::vector<std::string> texts;
    std::vector<Tone> tones;
};

} // namespace

static std::vector<Line> LinesOf(const Table& table, int64_t now)
{
    std::vector<Line> lines(1);
    for (const Column& column : table.columns)
        if (column.heading != nullptr) {
            lines[0].texts.emplace_back(column.heading);
            lines[0].tones.push_back(Tone::Plain);
        }
    for (const std::vector<Cell>& row : table.rows) {
        lines.emplace_back();
        for (size_t i = 0; i < row.size(); i++)
            if (table.columns[i].heading != nullptr) {
                lines.back().texts.push_back(TextOf(row[i], now));
                lines.back().tones.push_back(row[i].tone);
            }
    }
    return lines;
}

static void WriteToned(const std::string& text, Tone tone, std::ostream& out)
{
    if (tone == Tone::Plain)
        out << text;
    else
        out << ColourOf(tone) << text << "\033[0m";
}

static void WriteLine(const Line& line, const std::vector<size_t>& widths, const std::vector<bool>& areNumbers,
                      bool coloured, std::ostream& out)
{
    size_t pending = 0; // blanks, which do not end a line
    for (size_t i = 0; i < line.texts.size(); i++) {
        const size_t blanks = widths[i] - line.texts[i].size();
        const size_t before = areNumbers[i] ? blanks : 0;
        out << std::string(pending + before, ' ');
        WriteToned(line.texts[i], coloured ? line.tones[i] : Tone::Plain, out);
        pending = Gap + blanks - before;
    }
    out << '\n';
}

void WriteText(const Table& table, bool coloured, int64_t now, std::ostream& out)
{
    const std::vector<Line> lines = LinesOf(table, now);
    std::vector<bool> areNumbers;
    for (const Column& column : table.columns)
        if (column.heading != nullptr)
            areNumbers.push_back(column.isNumber);
    std::vector<size_t> widths(areNumbers.size(), 0);
    for (const Line& line : lines)
        for (size_t i = 0; i < widths.size(); i++)
            widths[i] = std::max(widths[i], line.texts[i].size());
    for (const Line& line : lines)
        WriteLine(line, widths, areNumbers, coloured, out);
}

std::string JsonText(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (c >= ' ' && c <= '~') {
            quoted += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            quoted += escaped;
        }
    }
    return quoted + "\"";
}

static std::string JsonOf(const Cell& cell)
{
    if (const auto* text = std::get_if<std::string>(&cell.value))
        if (!text->empty())
            return JsonText(*text);
    if (const auto* number = std::get_if<int64_t>(&cell.value))
        return std::to_string(*number);
    if (const auto* time = std::get_if<Time>(&cell.value))
        return std::to_string(time->seconds);
    if (const auto* numbers = std::get_if<std::vector<long>>(&cell.value))
        return "[" + Joined(*numbers) + "]";
    return "null";
}

void WriteJson(const Members& members, std::ostream& out)
{
    out << '{';
    for (size_t i = 0; i < members.size(); i++)
        out << (i == 0 ? "" : ", ") << '"' << members[i].first << "\": " << JsonOf(members[i].second);
    out << '}';
}

void WriteJson(const Table& table, const std::string& indent, std::ostream& out)
{
    out << '[';
    for (size_t i = 0; i < table.rows.size(); i++) {
        out << (i == 0 ? "\n" : ",\n") << indent;
        Members members;
        for (size_t column = 0; column < table.columns.size(); column++)
            members.emplace_back(table.columns[column].key, table.rows[i][column]);
        WriteJson(members, out);
    }
    if (!table.rows.empty())
        out << '\n' << indent.substr(0, indent.size() / 2);
    out << ']';
}

} // namespace orvstat
