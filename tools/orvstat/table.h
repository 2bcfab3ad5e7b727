// SPDX-License-Identifier: BSD-2-Clause
// A table that is written as aligned text or as JSON.
#ifndef TOOLS_ORVSTAT_TABLE_H
#define TOOLS_ORVSTAT_TABLE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace orvstat {

/// A moment in seconds since the epoch.
struct Time {
    int64_t seconds;
};

enum class Tone { Plain, Good, Doubtful, Bad };

/// A value of a table. Nothing at all, and an empty text, are "-" in text and null in JSON.
struct Cell {
    Cell() = default;
    Cell(const std::string& text, Tone theTone = Tone::Plain) : value(text), tone(theTone) {}
    Cell(int64_t number, Tone theTone = Tone::Plain) : value(number), tone(theTone) {}
    Cell(Time time) : value(time) {}
    Cell(const std::vector<long>& numbers) : value(numbers) {}

    std::variant<std::monostate, std::string, int64_t, Time, std::vector<long>> value;
    Tone tone = Tone::Plain;
};

/// What is said of a column. One without a heading stands in JSON alone.
struct Column {
    const char* heading;
    const char* key;
    bool isNumber; // aligned to the right
};

/// Its rows have a cell for each column.
struct Table {
    std::vector<Column> columns;
    std::vector<std::vector<Cell>> rows;
};

/// Writes a line of headings and a line a row. Times of this day are clock times, others are dates. Texts are
/// written as Visible makes them.
void WriteText(const Table& table, bool coloured, int64_t now, std::ostream& out);

/// The members of a JSON object.
typedef std::vector<std::pair<const char*, Cell>> Members;

/// Writes an object on one line. Times are in seconds.
void WriteJson(const Members& members, std::ostream& out);

/// Writes all rows as an array, an object a line; `indent` stands before each.
void WriteJson(const Table& table, const std::string& indent, std::ostream& out);

/// A text from elsewhere, to be shown: characters that are not visible become "?".
std::string Visible(const std::string& text);

/// A text as a JSON string. Bytes beyond ASCII are written as the characters of these numbers.
std::string JsonText(const std::string& text);

} // namespace orvstat

#endif
