// SPDX-License-Identifier: BSD-2-Clause
// StringTransformer against the rule of its templates.
#include <cstdlib>

#include "Misc/strxform.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

static std::string Literal(const std::string& text)
{
    CString literal(text.c_str());
    literal.toLiteral();
    return static_cast<const char*>(literal);
}

// What a directive stands for: a word, nothing, or a zero byte, which ends the output.
static std::string Word(char directive)
{
    switch (directive & 7) {
    case 0: return "";
    case 1: return std::string(1, '\0');
    default: return std::string("<") + directive + ">";
    }
}

static std::string Expansion(const std::string& pattern, const std::string& vocabulary)
{
    std::string output;
    for (std::size_t at = 0; at < pattern.size(); at++) {
        if (pattern[at] != '%') {
            output += pattern[at];
            continue;
        }
        if (++at == pattern.size())
            break;
        if (vocabulary.find(pattern[at]) != std::string::npos)
            output += Word(pattern[at]);
        else
            output += pattern[at] == '%' ? std::string("%") : std::string("%") + pattern[at];
    }
    return fuzzing::UpToZero(output);
}

static std::string Expand(StringTransformer& transformer)
{
    transformer.reset();
    for (char c; transformer.nextCharacter(c);) {
        const std::string word = Word(c);
        transformer.Output(word.data(), static_cast<unsigned>(word.size()));
    }
    CString output;
    transformer.GetOutput(output);
    char none = 'n';
    FUZZ_CHECK(transformer.nextCharacter(none) == 0 && none == 'n');
    return static_cast<const char*>(output);
}

static void CheckTimes(const std::string& vocabulary, const std::string& format, const std::string& timeFormat,
                       long time)
{
    StringTransformer times(vocabulary.c_str(), format.c_str(), nullptr, timeFormat.c_str(), nullptr);
    times.OutputTime(time);
    CString output;
    times.GetOutput(output);
    FUZZ_CHECK(output.strlen() < 40);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    const bool fromEnvironment = in.Flag();
    const long time = in.Flag() ? in.Number<long>() : in.Number<int>();
    const std::string vocabulary = in.Text();
    const std::string timeFormat = in.Text();
    const std::string format = fuzzing::UpToZero(in.Rest());
    if (fromEnvironment)
        setenv("FUZZ_TEMPLATE", format.c_str(), 1);
    else
        unsetenv("FUZZ_TEMPLATE");
    StringTransformer transformer(vocabulary.c_str(), fromEnvironment ? "" : format.c_str(), "FUZZ_TEMPLATE");
    const std::string expected = Expansion(Literal(format), vocabulary);
    FUZZ_CHECK(Expand(transformer) == expected);
    FUZZ_CHECK(Expand(transformer) == expected);
    StringTransformer copy(transformer);
    FUZZ_CHECK(Expand(copy) == expected);
    CheckTimes(vocabulary, format, timeFormat, time);
    return 0;
}
