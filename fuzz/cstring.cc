// SPDX-License-Identifier: BSD-2-Clause
// CString against std::string: every operation, on strings that share their texts.
#include <algorithm>
#include <cctype>
#include <memory>

#include "Misc/buffer.h"
#include "Misc/cstring.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;
using fuzzing::UpToZero;

namespace {

const unsigned Handles = 4;

// A text that is longer is emptied before its next step: appending a text to itself doubles it, and 64 steps of that are
// more memory than there is.
const std::size_t LongestKept = 256 * 1024;

// The text of a string: its bytes as they are stored, zero bytes that were written into it included.
typedef std::string Model;

template <class Convert>
Model Converted(Model text, Convert convert)
{
    for (char& c : text)
        c = static_cast<char>(convert(static_cast<unsigned char>(c)));
    return text;
}

int Flat(int c) { return std::isprint(c) ? c : ' '; }
int Printable(int c) { return c == '\t' || c == '\n' ? c : Flat(c); }

Model Dos(const Model& text)
{
    Model dos;
    for (std::size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r'))
            dos += '\r';
        dos += text[i];
    }
    return UpToZero(dos);
}

Model Unix(const Model& text)
{
    Model unixText;
    for (std::size_t i = 0; i < text.size(); i++)
        if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n'))
            unixText += text[i];
    return UpToZero(unixText);
}

Model Escaped(const Model& text, short mode)
{
    static const Model controls = "\b\t\n\v\f\r", letters = "btnvfr", pattern = "!$?[]|/()*+";
    Model escaped;
    for (const char c : UpToZero(text)) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '\'' || c == '"' || c == '\\' || (mode == 0 && pattern.find(c) != Model::npos))
            escaped += Model("\\") + c;
        else if (controls.find(c) != Model::npos)
            escaped += Model("\\") + letters[controls.find(c)];
        else if (std::isprint(byte))
            escaped += c;
        else
            escaped += {'\\', static_cast<char>('0' + byte / 64), static_cast<char>('0' + byte / 8 % 8),
                        static_cast<char>('0' + byte % 8)};
    }
    return escaped;
}

int DigitOf(char c, int base)
{
    const int digit = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                      : c >= 'a' && c <= 'f'                      ? c - 'a' + 10
                      : c >= 'A' && c <= 'F'                      ? c - 'A' + 10
                                                                  : 99;
    return digit < base ? digit : -1;
}

// The character of the octal or hexadecimal digits at `at`, which moves behind them.
char Numbered(const Model& text, std::size_t& at, int base, int most)
{
    int value = 0;
    for (int i = 0; i < most && at < text.size() && DigitOf(text[at], base) >= 0; i++)
        value = value * base + DigitOf(text[at++], base);
    return static_cast<char>(value);
}

Model Literal(const Model& stored)
{
    static const Model controls = "\b\f\n\r\t\v", letters = "bfnrtv";
    const Model text = UpToZero(stored);
    Model literal;
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] != '\\') {
            literal += text[i++];
            continue;
        }
        if (++i == text.size())
            break;
        const char c = text[i];
        if (DigitOf(c, 8) >= 0) {
            literal += Numbered(text, i, 8, 3);
            continue;
        }
        i++;
        if (c == 'x' && i < text.size() && DigitOf(text[i], 16) >= 0)
            literal += Numbered(text, i, 16, 2);
        else
            literal += letters.find(c) != Model::npos ? controls[letters.find(c)] : c;
    }
    return UpToZero(literal);
}

Model Replaced(const Model& text, char c, const Model& with)
{
    Model replaced;
    for (const char each : text)
        replaced += each == c ? with : Model(1, each);
    return UpToZero(replaced);
}

// Cuts the token off the front of `text`.
Model Token(Model& text, Model delimiters)
{
    for (const char quote : {'"', '\''})
        if (!text.empty() && text[0] == quote) {
            delimiters = quote;
            text = UpToZero(text.substr(1));
        }
    const Model seen = UpToZero(text);
    const std::size_t begin = seen.find_first_not_of(delimiters);
    if (begin == Model::npos)
        return "";
    Model token = seen.substr(begin, seen.find_first_of(delimiters, begin) - begin);
    text = UpToZero(text.substr(std::min(text.size(), token.size() + 1)));
    return token;
}

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

class Machine {
public:
    void Step(Input& in);
    void Check() const;
    void CheckFacts() const;

private:
    void Edit(Input& in, CString& s, Model& m);
    void Replace(Input& in, CString& s, Model& m);
    void ExtractToken(Input& in, CString& s, Model& m);
    void Convert(Input& in, CString& s, Model& m);
    void Assign(Input& in, CString& s, Model& m);

    CString strings[Handles];
    Model models[Handles];
};

void Machine::Step(Input& in)
{
    const unsigned i = in.Below(Handles);
    CString& s = strings[i];
    Model& m = models[i];
    if (m.size() > LongestKept) {
        s = "";
        m.clear();
    }
    switch (in.Below(3)) {
    case 0: Assign(in, s, m); break;
    case 1: Edit(in, s, m); break;
    default: Convert(in, s, m);
    }
}

void Machine::Assign(Input& in, CString& s, Model& m)
{
    const unsigned other = in.Below(Handles);
    switch (in.Below(8)) {
    case 0:
        s = strings[other];
        m = models[other];
        break;
    case 1:
        m = in.Text();
        s = m.c_str();
        break;
    case 2: {
        const unsigned n = in.Byte();
        const Model text = in.Text();
        s = CString(text.c_str(), n);
        m = text.substr(0, n);
        break;
    }
    case 3: {
        const Model bytes = in.Run();
        Buffer buffer;
        buffer.Append(bytes.data(), static_cast<unsigned>(bytes.size()));
        const CString text(buffer);
        s = text;
        m = UpToZero(bytes);
        break;
    }
    case 4: { // from within itself
        if (m.empty())
            break;
        const std::size_t at = in.Byte() % m.size();
        s = static_cast<const char*>(s) + at;
        m = UpToZero(m.substr(at));
        break;
    }
    case 5: {
        const unsigned second = in.Below(Handles);
        const Model a = models[other], b = models[second];
        s = strings[other] + strings[second];
        m = a.empty() ? b : b.empty() ? a : UpToZero(a + b); // one alone is shared
        break;
    }
    case 6:
        s = static_cast<const char*>(nullptr);
        m.clear();
        break;
    default: { // writes a character, perhaps a zero byte, into a text of its own
        const char c = in.Char();
        s += c;
        m = UpToZero(m + c);
        if (m.empty())
            break;
        const std::size_t at = in.Byte() % m.size();
        m[at] = in.Char();
        s[static_cast<unsigned>(at)] = m[at];
    }
    }
}

void Machine::Edit(Input& in, CString& s, Model& m)
{
    const unsigned other = in.Below(Handles);
    const unsigned pos = in.Flag() ? static_cast<unsigned>(in.Byte()) : in.Byte() % (s.strlen() + 2);
    switch (in.Below(9)) {
    case 0:
        s += strings[other];
        if (!models[other].empty())
            m = UpToZero(m + models[other]);
        break;
    case 1: {
        const Model text = in.Text();
        s += text.c_str();
        if (!text.empty())
            m = UpToZero(m + text);
        break;
    }
    case 2: {
        const char c = in.Char();
        s += c;
        m = UpToZero(m + c);
        break;
    }
    case 3: {
        const unsigned n = in.Flag() ? in.Number<unsigned>() : in.Byte();
        s.Delete(pos, n);
        if (pos < m.size() && n > 0)
            m = UpToZero(m.erase(pos, n));
        break;
    }
    case 4: {
        const Model inserted = models[other];
        s.Insert(pos, strings[other]);
        if (pos <= m.size() && !inserted.empty())
            m = UpToZero(m.insert(pos, inserted));
        break;
    }
    case 5: {
        const Model text = in.Text();
        s.Insert(pos, text.c_str());
        if (pos <= m.size())
            m = UpToZero(m.insert(pos, text));
        break;
    }
    case 6: {
        const char c = in.Char();
        s.Insert(pos, c);
        if (pos <= m.size())
            m = UpToZero(c != '\0' ? m.insert(pos, 1, c) : m);
        break;
    }
    case 7: Replace(in, s, m); break;
    default: ExtractToken(in, s, m);
    }
}

void Machine::Replace(Input& in, CString& s, Model& m)
{
    const char c = in.Char();
    const Model text = in.Text();
    if (m.size() > 4096)
        return;
    s.ReplaceAll(c, text.c_str());
    if (m.find(c) != Model::npos)
        m = Replaced(m, c, text);
}

void Machine::ExtractToken(Input& in, CString& s, Model& m)
{
    CString token("earlier");
    const Model delimiters = in.Text();
    s.ExtractToken(token, delimiters.c_str());
    const Model expected = Token(m, delimiters);
    FUZZ_CHECK(static_cast<const char*>(token) == expected);
}

void Machine::Convert(Input& in, CString& s, Model& m)
{
    switch (in.Below(10)) {
    case 0:
        s.lTrim();
        if (!m.empty() && IsSpace(m[0])) {
            std::size_t n = 0;
            while (n < m.size() && IsSpace(m[n]))
                n++;
            m = UpToZero(m.substr(n));
        }
        break;
    case 1:
        s.rTrim();
        if (!m.empty() && IsSpace(m.back())) {
            while (!m.empty() && IsSpace(m.back()))
                m.pop_back();
            m = UpToZero(m);
        }
        break;
    case 2:
        s.toUpper();
        m = Converted(m, [](int c) { return std::toupper(c); });
        break;
    case 3:
        s.toLower();
        m = Converted(m, [](int c) { return std::tolower(c); });
        break;
    case 4:
        s.flatten();
        m = Converted(m, Flat);
        break;
    case 5:
        s.makeprintable();
        m = Converted(m, Printable);
        break;
    case 6:
        s.toDos();
        m = Dos(m);
        break;
    case 7:
        s.toUnix();
        m = Unix(m);
        break;
    case 8: {
        const short mode = in.Below(3);
        if (m.size() > 4096)
            break;
        FUZZ_CHECK(CString::literal_to_escape_strlen(s, mode) == Escaped(m, mode).size());
        s.toEscape(mode);
        m = Escaped(m, mode);
        break;
    }
    default: s.toLiteral(); m = Literal(m);
    }
}

int Sign(int n) { return (n > 0) - (n < 0); }

// That every text is what it is to be, also of those that an operation on another one has no business with.
void Machine::Check() const
{
    for (unsigned i = 0; i < Handles; i++) {
        FUZZ_CHECK(strings[i].strlen() == models[i].size());
        const char* text = strings[i];
        FUZZ_CHECK(std::memcmp(text, models[i].c_str(), models[i].size() + 1) == 0);
    }
}

void Machine::CheckFacts() const
{
    for (unsigned i = 0; i < Handles; i++) {
        const CString& s = strings[i];
        const Model& m = models[i];
        FUZZ_CHECK(s == m.c_str());
        FUZZ_CHECK(s.find_awk_chars() == (UpToZero(m).find_first_of(".^") != Model::npos));
        const std::unique_ptr<char[]> quoted(CString::EncloseWithQuotes(s));
        FUZZ_CHECK(quoted.get() == '"' + UpToZero(m) + '"');
        for (unsigned j = 0; j < Handles; j++) {
            const CString* a = &s;
            const CString* b = &strings[j];
            const int order = std::strcmp(m.c_str(), models[j].c_str());
            FUZZ_CHECK(Sign(CString::compare(&a, &b)) == Sign(order));
            FUZZ_CHECK((*a == *b) == (m.size() == models[j].size() && order == 0));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    Machine machine;
    for (int steps = 0; steps < 64 && !in.IsAtEnd(); steps++) {
        machine.Step(in);
        machine.Check();
    }
    machine.CheckFacts();
    return 0;
}
