// SPDX-License-Identifier: BSD-2-Clause
// How the daemons read their command lines.
#ifndef EXAMPLES_COMMANDLINE_H
#define EXAMPLES_COMMANDLINE_H

#include <charconv>
#include <cstring>

/// Reads a number, in decimal digits and nothing else but a sign.
template <class Number>
bool ReadNumber(const char* text, Number* number)
{
    const char* end = text + std::strlen(text);
    const std::from_chars_result read = std::from_chars(text, end, *number);
    return read.ptr == end && read.ec == std::errc();
}

/// Reads the words behind the program's name: `takesWord(word)` says whether one stands alone, and
/// `takesOption(option, value)` whether two are an option and its value. False when one is neither.
template <class TakesWord, class TakesOption>
bool ReadCommandLine(int argc, char** argv, TakesWord takesWord, TakesOption takesOption)
{
    for (int i = 1; i < argc; i++) {
        if (takesWord(argv[i]))
            continue;
        if (i + 1 == argc || !takesOption(argv[i], argv[i + 1]))
            return false;
        i++;
    }
    return true;
}

/// Sets `flag` when `word` is that name.
inline bool TakesFlag(const char* word, const char* name, bool* flag)
{
    const bool isThat = std::strcmp(word, name) == 0;
    *flag = *flag || isThat;
    return isThat;
}

#endif
