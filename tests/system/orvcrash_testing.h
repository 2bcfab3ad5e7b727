// SPDX-License-Identifier: BSD-2-Clause
// What the tests of orvcrash share: the program, run, what it shows taken apart, and programs that crash.
#ifndef TESTS_SYSTEM_ORVCRASH_TESTING_H
#define TESTS_SYSTEM_ORVCRASH_TESTING_H

#include <cctype>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

namespace orvcrash_testing {

using namespace testing_support;

inline const std::string Tool = ORVCRASH;
inline const std::string Data = "/var/orv/data/";
inline const std::string Programs = "/opt/orv/bin/";
inline const std::string Segv = std::to_string(SIGSEGV);

/// The path of a program of the host; empty when it is not there.
inline std::string PathOf(const std::string& program)
{
    for (const char* directory : {"/usr/bin/", "/bin/", "/usr/local/bin/"})
        if (access((directory + program).c_str(), X_OK) == 0)
            return directory + program;
    return "";
}
inline bool Has(const std::string& program) { return !PathOf(program).empty(); }

inline void Copy(const std::string& from, const std::string& to)
{
    unlink(to.c_str());
    WriteFile(to, ReadFile(from));
    chmod(to.c_str(), 0755);
}

/// What orvcrash says, with the paths of the sources from the tree on: a compiler cache may make them relative.
inline ChildResult Ask(const std::vector<std::string>& arguments)
{
    ChildResult result = RunProgram(ProgramUnderTest(Tool), arguments);
    EXPECT_EQ(result.signal, 0);
    result.out = Replaced(result.out, "[^ \"]*tests/system/victim/", "tests/system/victim/");
    return result;
}

/// The lines of a section of the text.
inline std::vector<std::string> Section(const std::string& text, const std::string& name)
{
    std::vector<std::string> lines;
    size_t at = text.find("\n\n" + name + "\n");
    if (at == std::string::npos)
        return lines;
    at += name.size() + 3;
    while (at < text.size() && text[at] != '\n') {
        const size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

/// What the frames show behind their number and address.
inline std::vector<std::string> Frames(const std::string& text)
{
    std::vector<std::string> frames;
    for (const std::string& line : Section(text, "Frames"))
        frames.push_back(Replaced(line, "^  #[0-9]+ +[0-9a-f]+(  )?", ""));
    return frames;
}

/// Whether `text` is one JSON value and nothing else.
class Json {
public:
    static bool IsOne(const std::string& text)
    {
        Json json(text);
        return json.Value() && json.text.substr(json.at) == "\n";
    }

private:
    explicit Json(const std::string& text_p) : text(text_p) {}
    bool Take(char c)
    {
        if (text[at] != c)
            return false;
        at++;
        return true;
    }
    bool Word(const std::string& word)
    {
        if (text.compare(at, word.size(), word) != 0)
            return false;
        at += word.size();
        return true;
    }
    bool String()
    {
        if (!Take('"'))
            return false;
        for (; text[at] != '"'; at++) {
            if (static_cast<unsigned char>(text[at]) < ' ')
                return false;
            if (text[at] == '\\' && std::string("\"\\nt").find(text[++at]) == std::string::npos)
                return false;
        }
        return Take('"');
    }
    // NOLINTNEXTLINE(misc-no-recursion): so is JSON
    bool Elements(char end, bool named)
    {
        if (Take(end))
            return true;
        do
            if ((named && (!String() || !Take(':'))) || !Value())
                return false;
        while (Take(','));
        return Take(end);
    }
    // NOLINTNEXTLINE(misc-no-recursion): so is JSON
    bool Value()
    {
        if (Take('{'))
            return Elements('}', true);
        if (Take('['))
            return Elements(']', false);
        if (text[at] == '"')
            return String();
        if (Word("null") || Word("true") || Word("false"))
            return true;
        const size_t from = at;
        at += text[at] == '-' ? 1 : 0;
        while (isdigit(static_cast<unsigned char>(text[at])))
            at++;
        return at > from;
    }

    const std::string text;
    size_t at = 0;
};

/// The number of the line of the victim's source that has `text`.
inline std::string LineOf(const std::string& file, const std::string& text)
{
    const std::string source = ReadFile(VICTIM_SOURCES + file);
    const size_t at = source.find(text);
    EXPECT_NE(at, std::string::npos) << text;
    return std::to_string(1 + CountOf(source.substr(0, at), "\n"));
}

/// The frames that everything that has names must show, behind the addresses.
inline std::vector<std::string> ExpectedFrames()
{
    const std::string path = "tests/system/victim/";
    return {"Discounted(long const*, long) at " + path + "tariff.cc:" + LineOf("tariff.cc", "*rates * items"),
            "TariffOf at " + path + "tariff.cc:" + LineOf("tariff.cc", "= Discounted("),
            "Order::Price(long const*) const at " + path + "orderd.cc:" + LineOf("orderd.cc", "= TariffOf("),
            "main at " + path + "orderd.cc:" + LineOf("orderd.cc", "second.Price(")};
}

inline void ExpectFrames(const std::string& text)
{
    std::vector<std::string> frames = Frames(text);
    ASSERT_GE(frames.size(), 4u) << text;
    frames.resize(4); // those of the C library are its own
    EXPECT_EQ(frames, ExpectedFrames());
}

/// What orvcrash writes to a terminal of that kind (null: none is named), up to `last`.
inline std::string OnTerminal(const std::vector<std::string>& arguments, const char* term, const char* noColour,
                              const std::string& last)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_EQ(grantpt(terminal) + unlockpt(terminal), 0);
    const std::string name = ptsname(terminal);
    const pid_t child = StartChild([&] {
        dup2(open(name.c_str(), O_RDWR | O_NOCTTY), STDOUT_FILENO);
        unsetenv("TERM");
        if (term != nullptr)
            setenv("TERM", term, 1);
        if (noColour != nullptr)
            setenv("NO_COLOR", noColour, 1);
        Execute(ProgramUnderTest(Tool), arguments);
    });
    std::string text;
    char block[4096];
    const int kept = open(name.c_str(), O_RDWR | O_NOCTTY); // until all has been read
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    EXPECT_TRUE(WaitUntil([&] {
        for (ssize_t n; (n = read(terminal, block, sizeof block)) > 0;)
            text.append(block, static_cast<size_t>(n));
        return text.find(last) != std::string::npos;
    })) << text;
    EXPECT_EQ(WaitForExit(child), 0);
    close(kept);
    close(terminal);
    return Replaced(text, "\r", "");
}

class OrvCrash : public testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs the sandbox";
        if (!Has("addr2line"))
            GTEST_SKIP() << "needs addr2line (binutils)";
        Copy(ORDERD, Programs + "orderd");
        Copy(ORDERD_STATIC, Programs + "orderd_static");
        Copy(TARIFF, Programs + "libtariff.so");
        Copy(LIBZELOO, Programs + "libzeloo.so.1");
        unsetenv("ORDER_REMARK");
        for (const char* name : {"orderd", "orderd_static"})
            for (const char* suffix : {".sig", ".map", ".sig.old", ".map.old"})
                unlink((Data + name + suffix).c_str());
    }
    /// Runs a program that crashes; its crash file.
    static std::string Crash(const std::string& name, const std::vector<std::string>& arguments = {})
    {
        const ChildResult result = RunProgram(Programs + name, arguments);
        EXPECT_EQ(result.signal, SIGABRT) << result.err;
        return Data + name + ".sig";
    }
};

} // namespace orvcrash_testing

#endif
