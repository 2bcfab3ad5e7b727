// SPDX-License-Identifier: BSD-2-Clause
// orvcrash, on crash files and maps that are damaged, cut, foreign or very large.
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "tests/system/orvcrash_testing.h"

using namespace orvcrash_testing;

namespace {

const std::string Heading = "11/22/2026 10:11:12. SIGNAL 11 detected. ProgInfo=/opt/orv/bin/billd -q \n";
const std::string DumpLine = "\n......initiating dump...\n\n";
const std::string Registers = "u_ar0[UESP]=bf000010\nu_ar0[EIP]=08048010\n";
const std::string FrameLines = "Dynamic link:\tReturn Address:\nbp=bf000020\tip=08048021\nbp=bf000030\tip=08048031\n";
const std::string Stack = "\nStack: 0xbf000010 -- [size 32[0x20] bytes]\n"
                          "bf000010: 00000001 00000002 00000003 00000004 [                ]\n\t dup 1\n";
const std::string NoObjects = "\nMonitored Objects: \nNo objects currently being monitored...\n";
const std::string Whole = Heading + DumpLine + Registers + FrameLines + Stack + NoObjects;

// Objects with their heading; `text` is what stands between the first and the last line.
std::string Objects(const std::string& text)
{
    return "\nMonitored Objects: \n*** Dump of all Monitored Objects ***\n" + text +
           "*** End Dump of all Monitored Objects ***\n";
}

std::string Begin(const std::string& tag) { return "\n\n*** Begin dump of object tag: " + tag + "\n"; }
std::string End(const std::string& tag) { return "\n*** End dump of object tag:   " + tag + "\n"; }

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

class OrvCrashInput : public OrvCrash {
protected:
    // What is said of a crash file with this text, and of a map.
    std::string Shown(const std::string& text, const std::vector<std::string>& more = {})
    {
        WriteFile(file, text);
        std::vector<std::string> arguments = {file};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const ChildResult result = Ask(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return result.out;
    }
    // The warnings below the title, but for the one that there is no map.
    std::vector<std::string> Warnings(const std::string& text)
    {
        std::vector<std::string> warnings;
        const std::string shown = Shown(text);
        for (const std::string& line : Lines(shown.substr(0, shown.find("\n\n")))) {
            const bool isOther = line.find("Report ") == 0 || line.find("  signal  ") == 0 ||
                                 line.find("  command  ") == 0 || line.find("  process  ") == 0 ||
                                 line.find("  no map: ") == 0;
            if (!isOther)
                warnings.push_back(line);
        }
        return warnings;
    }
    // The same with a map that has one block with this text, for the report of `Whole`.
    std::vector<std::string> WarningsOfMap(const std::string& block)
    {
        WriteFile(map, "\n" + Heading + block);
        return Warnings(Whole);
    }

    const TemporaryDirectory directory;
    const std::string file = directory.File("billd.sig");
    const std::string map = directory.File("billd.map");
};

using Texts = std::vector<std::string>;

// ---- Texts ----

TEST_F(OrvCrashInput, AllCharactersOfUtf8AreShownAndAllElseIsWrittenAsBytes)
{
    const Texts characters = {" ~",
                              "\t|",
                              "\xc2\xa0",
                              "\xc3\xa9",
                              "\xdf\xbf",
                              "\xe0\xa0\x80",
                              "\xe2\x82\xac",
                              "\xed\x9f\xbf",
                              "\xee\x80\x80",
                              "\xef\xbf\xbd",
                              "\xf0\x90\x80\x80",
                              "\xf1\x80\x80\x80",
                              "\xf3\xbf\xbf\xbf",
                              "\xf4\x8f\xbf\xbf"};
    const Texts others = {"\x01",
                          "\x1b",
                          "\x1f",
                          "\x7f",
                          "\x80",
                          "\xbf",
                          "\xff", // controls, and bytes that begin nothing
                          "\xc2\x80",
                          "\xc2\x9b", // C1 controls
                          "\xc0\xaf",
                          "\xc1\xbf",
                          "\xe0\x9f\xbf",
                          "\xf0\x8f\xbf\xbf", // overlong
                          "\xed\xa0\x80",
                          "\xed\xbf\xbf", // surrogates
                          "\xf4\x90\x80\x80",
                          "\xf5\x80\x80\x80", // beyond the last one
                          "\xc3",
                          "\xe2",
                          "\xe2\x82",
                          "\xf0",
                          "\xf0\x9f",
                          "\xf0\x9f\x98", // cut off
                          "\xc3\xc3",
                          "\xe2\x82\xe2",
                          "\xf0\x9f\x98\xf0"};
    std::string lines;
    Texts expected;
    for (const std::string& character : characters) {
        lines += character + "\n";
        expected.push_back("  " + character);
    }
    for (const std::string& other : others)
        for (const char* behind : {"", "x"}) {
            lines += other + behind + "\n";
            std::string escaped = "  ";
            for (const char c : other) {
                char digits[8];
                snprintf(digits, sizeof digits, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
                escaped += digits;
            }
            expected.push_back(escaped + behind);
        }
    const std::string text = Heading + DumpLine + Registers + FrameLines + Stack + Objects(lines);
    EXPECT_EQ(Section(Shown(text), "Objects"), expected);
    const std::string json = Shown(text, {"--json"});
    EXPECT_TRUE(Json::IsOne(json));
    EXPECT_NE(json.find("\"\xc3\xa9\""), std::string::npos);
    EXPECT_NE(json.find("\"\\\\xf0\\\\x9f\""), std::string::npos);
}

TEST_F(OrvCrashInput, EachSignalHasItsNameAndAnotherOneItsNumber)
{
    const std::vector<std::pair<int, std::string>> names = {
        {SIGABRT, "SIGABRT"}, {SIGILL, "SIGILL"}, {SIGBUS, "SIGBUS"},   {SIGSEGV, "SIGSEGV"},
        {SIGSYS, "SIGSYS"},   {SIGFPE, "SIGFPE"}, {SIGTRAP, "SIGTRAP"}, {SIGUSR2, "SIGUSR2"}};
    const auto shown = [&](const std::string& number) {
        std::string text = Whole;
        text.replace(text.find("SIGNAL 11"), 9, "SIGNAL " + number);
        const Texts lines = Lines(Shown(text));
        return lines[0] + "\n" + lines[1];
    };
    for (const auto& [number, name] : names)
        EXPECT_EQ(shown(std::to_string(number)), "Report 1 of 1: 11/22/2026 10:11:12, " + name + "\n  signal   " +
                                                     std::to_string(number) + " (" + strsignal(number) + ")");
    for (const std::string& number :
         {std::string("0"), std::string("-11"), std::string("300"), std::to_string(static_cast<long>(~0ul >> 1))})
        EXPECT_EQ(shown(number), "Report 1 of 1: 11/22/2026 10:11:12, signal " + number + "\n  signal   " + number);
}

TEST_F(OrvCrashInput, ACommandIsShownAsItWasGiven)
{
    const auto command = [&](const std::string& given) {
        std::string text = Whole;
        text.replace(text.find("/opt/orv/bin/billd -q \n"), 23, given);
        const std::string shown = Shown(text);
        const size_t at = shown.find("\n  command  ") + 12;
        return shown.substr(at, shown.find("\n  no map: ") - at);
    };
    EXPECT_EQ(command("\n"), "");
    EXPECT_EQ(command("billd\n"), "billd");
    EXPECT_EQ(command("billd  \n"), "billd ") << "one blank behind each argument";
    EXPECT_EQ(command("billd a\nb \n"), "billd a\nb");
    EXPECT_EQ(command("billd \033[2J \n"), "billd \\x1b[2J");
}

// ---- Damage ----

TEST_F(OrvCrashInput, AFirstLineThatIsNoneIsDamage)
{
    const Texts headings = {"11/22/2026 10:11:1. SIGNAL 11 detected. ProgInfo=x",
                            "11/22/2026 10:11:123. SIGNAL 11 detected. ProgInfo=x",
                            "11-22/2026 10:11:12. SIGNAL 11 detected. ProgInfo=x",
                            "1:/22/2026 10:11:12. SIGNAL 11 detected. ProgInfo=x",
                            "11/22/2026 10:11:1 . SIGNAL 11 detected. ProgInfo=x",
                            "11/22/2026 10:11:12. SIGNAL 11 detected",
                            "11/22/2026 10:11:12. SIGNAL  detected. ProgInfo=x",
                            "11/22/2026 10:11:12. SIGNAL 1x detected. ProgInfo=x",
                            "11/22/2026 10:11:12. SIGNAL 99999999999999999999 detected. ProgInfo=x",
                            "11/22/2026 10:11:12."};
    for (const std::string& heading : headings) {
        std::string text = Whole;
        text.replace(0, Heading.size() - 1, heading);
        const Texts expected = {"  line 1 is not understood: " + heading,
                                "  the first line is missing: date, signal and command are not known"};
        EXPECT_EQ(Warnings(text), expected);
        EXPECT_EQ(Shown(text).substr(0, 14), "Report 1 of 1\n");
    }
}

TEST_F(OrvCrashInput, DamagedRegistersFramesAndRowsAreSaidToBeSo)
{
    const auto within = [&](const std::string& part, const Texts& damaged) {
        std::string lines;
        Texts expected;
        size_t number = CountOf(Whole.substr(0, Whole.find(part) + part.size()), "\n");
        for (const std::string& line : damaged) {
            lines += line + "\n";
            expected.push_back("  line " + std::to_string(++number) + " is not understood: " + line);
        }
        std::string text = Whole;
        text.insert(text.find(part) + part.size(), lines);
        EXPECT_EQ(Warnings(text), expected);
        const std::string shown = Shown(text), whole = Shown(Whole);
        EXPECT_EQ(shown.substr(shown.find("\n\nRegisters")), whole.substr(whole.find("\n\nRegisters")))
            << "all else is read";
    };
    within(Registers, {"u_ar0[EAX=00000001", "u_ar0[EAX]=", "u_ar0[EAX]=12g", "u_ar0[EAX]=-1", "u_ar0[EAX]= 1",
                       "u_ar0[EAX]=11112222333344445", "u_ar0", "bp=00000001\tip=00000002", "\t 7 frame(s) left out"});
    within(FrameLines,
           {"bp=00000001", "bp=00000001 ip=00000002", "bp=\tip=00000002", "bp=0000000x\tip=00000002",
            "bp=00000001\tip=", "bp=00000001\tip=0000000x", "ip=00000002", "\t many frame(s) left out", "\t 7 frames",
            "\t 0 frame(s) left out", "\t -7 frame(s) left out", "\t 99999999999999999999 frame(s) left out"});
    within(Stack, {"bf00002x: 00000001", "bf000020 00000001", ": 00000001", "Stack: 0xbf000010 -- [size 0 bytes]"});
}

TEST_F(OrvCrashInput, OfManyDamagedLinesTheFirstAreShown)
{
    std::string text = Heading + DumpLine + Registers;
    for (int i = 0; i < 23; i++)
        text += i == 0 ? std::string(201, 'x') + "\n" : i == 1 ? std::string(200, 'y') + "\n" : "?\n";
    const Texts warnings = Warnings(text + FrameLines + Stack + NoObjects);
    ASSERT_EQ(warnings.size(), 21u);
    EXPECT_EQ(warnings[0], "  line 7 is not understood: " + std::string(200, 'x') + "...");
    EXPECT_EQ(warnings[1], "  line 8 is not understood: " + std::string(200, 'y'));
    EXPECT_EQ(warnings[19], "  line 26 is not understood: ?");
    EXPECT_EQ(warnings[20], "  3 more lines are not understood");
}

TEST_F(OrvCrashInput, TheEndOfAReportIsShownWhereverItBegins)
{
    const Texts parts = {Registers, FrameLines, Stack, NoObjects};
    const Texts names = {"the first line is missing: date, signal and command are not known",
                         "the registers are missing", "the frames are missing", "the stack is missing"};
    std::string text;
    for (size_t from = 4; from-- > 0;) {
        text.insert(0, parts[from]);
        Texts expected;
        for (size_t i = 0; i <= from; i++)
            expected.push_back("  " + names[i]);
        EXPECT_EQ(Warnings(text), expected);
    }
    const std::string heading = Shown(text);
    EXPECT_EQ(heading.find("Report 1 of 1\n  no map: " + map + ": No such file or directory\n"), 0u) << heading;
    WriteFile(map, "\n" + Heading + "pid=7\tmodules=0\n");
    EXPECT_NE(Shown(text).find("  " + map + " has nothing about this report\n"), std::string::npos);
}

TEST_F(OrvCrashInput, WhatACaptureHasLeftOutIsNoDamage)
{
    const std::string remark = "*** The rest is left out: signal 11 ***";
    EXPECT_EQ(Warnings(Heading + DumpLine + Registers + "\n" + remark + "\n"), Texts());
    EXPECT_EQ(Warnings(Heading + DumpLine + Registers + FrameLines + "\n" + remark + "\n"), Texts());
    EXPECT_EQ(Warnings(Heading + DumpLine + Registers + FrameLines + Stack + "\n" + remark + "\n"), Texts());
    const std::string objects = "\nMonitored Objects: \n*** Dump of all Monitored Objects ***\n";
    const std::string before = Heading + DumpLine + Registers + FrameLines + Stack + objects;
    const auto end = [&](const std::string& text) {
        EXPECT_EQ(Warnings(text), Texts());
        const std::string shown = Shown(text);
        return shown.substr(shown.find("\n\nObjects\n"));
    };
    EXPECT_EQ(end(before + "\n" + remark + "\n"), "\n\nObjects\n\n  " + remark + "\n");
    EXPECT_EQ(end(before + Begin("4") + "half" + "\n" + remark + "\n"),
              "\n\nObjects\n\n  object 4 (not whole)\n    half\n\n  " + remark + "\n");
    EXPECT_EQ(Warnings(Heading + DumpLine + remark + "\n"), Texts({"  the registers are missing"}));
}

TEST_F(OrvCrashInput, ObjectsAreShownAsTheyBeginAndEnd)
{
    const auto objects = [&](const std::string& text) {
        const std::string shown = Shown(Heading + DumpLine + Registers + FrameLines + Stack + text);
        return shown.substr(shown.find("\n\nObjects\n") + 10);
    };
    EXPECT_EQ(objects(NoObjects), "  No objects currently being monitored...\n");
    EXPECT_EQ(objects(Objects(Begin("0") + End("0"))), "\n  object 0\n") << "one that says nothing";
    EXPECT_EQ(objects(Objects(Begin("0") + "a\n\nb\n" + End("0") + "between\n" + Begin("1") + "c" + End("1"))),
              "  between\n\n  object 0\n    a\n\n    b\n\n  object 1\n    c\n");
    // An object that shows others, and one whose end is lacking.
    EXPECT_EQ(
        objects(Objects(Begin("3") + "a\n" + Begin("2") + "b" + End("2") + End("3"))),
        "\n  object 3\n    a\n\n\n    *** Begin dump of object tag: 2\n    b\n    *** End dump of object tag:   2\n");
    EXPECT_EQ(objects(Objects(Begin("3") + "a\n" + Begin("5") + "b" + End("5"))),
              "\n  object 3 (not whole)\n    a\n\n\n  object 5\n    b\n");
    // Lines that are like those.
    EXPECT_EQ(objects(Objects(Begin("x") + Begin("-1") + "*** End dump of object tag:   x\n" + End("-1") + End("9"))),
              "  *** Begin dump of object tag: x\n  *** End dump of object tag:   9\n\n  object -1\n"
              "    *** End dump of object tag:   x\n");
    const Texts within = {"  the report ends within the object of tag 3"},
                among = {"  the report ends among the objects"};
    const std::string begin = Heading + DumpLine + Registers + FrameLines + Stack + "\nMonitored Objects: \n";
    EXPECT_EQ(Warnings(begin + Begin("3") + "a\n"), within);
    const std::string cut = Heading + DumpLine + Registers + "*** The rest is left out: signal 11 ***\n";
    EXPECT_EQ(Warnings(cut + "Monitored Objects: \n" + Begin("3") + "a\n"), Texts()) << "it has said so before";
    EXPECT_EQ(Warnings(begin + "*** Begin dump of object tag: 3"), within) << "nothing is behind its beginning";
    EXPECT_EQ(Warnings(begin + Begin("3") + "a" + End("3")), among);
    EXPECT_EQ(Warnings(begin), among);
}

// ---- Frames ----

TEST_F(OrvCrashInput, FramesThatWereLeftOutAreCounted)
{
    const std::string leftOut = "\t 5000 frame(s) left out\n";
    const std::string first = "Dynamic link:\tReturn Address:\nbp=bf000020\tip=08048021\n";
    const std::string second = "bp=bf000030\tip=08048031\n";
    const std::string before = Heading + DumpLine + Registers, behind = Stack + NoObjects;
    const std::string at0 = "  #0           08048010", at1 = "  #1           08048021";
    const std::string count = "       5000 frames left out";
    EXPECT_EQ(Section(Shown(before + first + leftOut + second + behind), "Frames"),
              Texts({at0, at1, count, "  #5002        08048031"}));
    // Cut off behind that line, and nothing else of them.
    EXPECT_EQ(Section(Shown(before + first + leftOut), "Frames"), Texts({at0, at1, count}));
    EXPECT_EQ(Section(Shown(Heading + DumpLine + "Dynamic link:\tReturn Address:\n" + leftOut), "Frames"),
              Texts({count}));
    EXPECT_EQ(Section(Shown(before + "Dynamic link:\tReturn Address:\n" + leftOut + second + behind), "Frames"),
              Texts({at0, count, "  #5001        08048031"}));
    const std::string json = Shown(before + first + leftOut + second + behind, {"--json"});
    EXPECT_EQ(CountOf(json, ",\"frames_left_out\":5000,"), 1) << json;
    EXPECT_EQ(Section(Shown(before + first + "bp=bf000030\tip=00000000\n" + behind), "Frames"),
              Texts({at0, at1, "  #2           00000000"}));
    WriteFile(map, "\n" + Heading + "pid=7\tmodules=1\nlow=0\thigh=8048021\tbias=0\tbuildid=\tpath=billd\n");
    EXPECT_EQ(Section(Shown(before + first + "bp=bf000030\tip=00000000\n" + behind), "Frames"),
              Texts({at0 + "  billd+0x8048010", at1 + "  billd+0x8048021", "  #2           00000000  billd+0x0"}))
        << "a return address behind the last call of the module is in it";
}

// The first row of the stack has the caller of a pointer that leads nowhere.
TEST_F(OrvCrashInput, TheCallerIsTakenFromTheTopOfTheStackOnly)
{
    WriteFile(map, "\n" + Heading + "pid=7\tmodules=1\nlow=08000000\thigh=09000000\tbias=0\tbuildid=\tpath=billd\n");
    const auto second = [&](const std::string& top, const std::string& rows) {
        const std::string registers = top.empty() ? "" : "u_ar0[UESP]=" + top + "\n";
        const Texts frames = Section(Shown(Heading + DumpLine + registers + "u_ar0[EIP]=00000000\n" + FrameLines +
                                           "\nStack: 0xbf000010 -- [size 32[0x20] bytes]\n" + rows + NoObjects),
                                     "Frames");
        EXPECT_TRUE(frames.size() == 3 || frames.size() == 4);
        return frames.size() == 4 ? Replaced(frames[1], "^  #1 +", "") : "";
    };
    const std::string row = "bf000010: 08000010 08000011 08000012 08000013 [    ]\n";
    const auto inBilld = [](const std::string& last) { return "080000" + last + "  billd+0x80000" + last; };
    EXPECT_EQ(second("bf000010", row), inBilld("10"));
    EXPECT_EQ(second("bf000014", row), inBilld("11"));
    EXPECT_EQ(second("bf00001c", row), inBilld("13"));
    for (const char* top : {"", "bf00000c", "bf000020", "bf000012", "7f00bf000010"})
        EXPECT_EQ(second(top, row), "") << top;
    for (const char* damaged :
         {"", "\t dup 2\n", "\t dup 2: 1\n", "bf000010: 08000010\n", "bf000010: 08000010 08000011 08000012 08000013\n",
          "bf000010: 08000010 x 08000012 08000013 [    ]\n", "bf000010: 7f000010 08000011 08000012 08000013 [    ]\n"})
        EXPECT_EQ(second("bf000010", damaged), "") << damaged;
    // Addresses of 64 bits: the lower half first, or the upper one.
    const std::string longRow = "7f00bf000010: 08000010 00000000 00000000 08000013 [    ]\n";
    EXPECT_EQ(second("7f00bf000010", longRow), inBilld("10"));
    EXPECT_EQ(second("7f00bf000018", longRow), inBilld("13"));
    for (const char* top : {"7f00bf000014", "7f00bf000020", "7f00bf000008"})
        EXPECT_EQ(second(top, longRow), "") << top;
    EXPECT_EQ(second("7f00bf000010", "7f00bf000010: 08000010 08000010 00000000 08000013 [    ]\n"), "");
}

// ---- Maps ----

TEST_F(OrvCrashInput, AModuleThatIsNoneCostsItsNamesOnly)
{
    const std::string good = "low=08000000\thigh=08001000\tbias=0\tbuildid=0badcafe\tpath=billd\n";
    const Texts wrong = {"low=08000000\thigh=08001000\tbias=0\tbuildid=0badcafe",
                         "low=08000000\thigh=08001000\tbias=0\tpath=x",
                         "low=08000000\thigh=08001000\tbuildid=\tpath=x",
                         "low=08000000\tbias=0\tbuildid=\tpath=x",
                         "high=08001000\tbias=0\tbuildid=\tpath=x",
                         "low=\thigh=08001000\tbias=0\tbuildid=\tpath=x",
                         "low=08000000\thigh=x\tbias=0\tbuildid=\tpath=x",
                         "low=08000000\thigh=08001000\tbias=-1\tbuildid=\tpath=x",
                         "low=08000000\thigh=08000000\tbias=0\tbuildid=\tpath=x",
                         "low=08000000\thigh=07000000\tbias=0\tbuildid=\tpath=x",
                         "low=08000000\thigh=08001000\tbias=0\tbuildid=../../x\tpath=x",
                         "low=08000000\thigh=08001000\tbias=0\tbuildid=" + std::string(129, 'a') + "\tpath=x",
                         "low=08000000\thigh=08001000\tbias=0\tbuildid=\tpath=" + std::string(4 * 4096 + 1, 'x')};
    std::string lines;
    for (const std::string& line : wrong)
        lines += line + "\n";
    EXPECT_EQ(WarningsOfMap("pid=7\tmodules=2\n" + lines + good),
              Texts({"  the map names 1 of 2 modules", "  13 line(s) of the map are not understood"}));
    EXPECT_EQ(Section(Shown(Whole), "Modules"), Texts({"          08000000-08001000  billd"})) << "nobody asked for it";
    const std::string longest(128, 'a'), longestPath(4 * 4096, 'x');
    EXPECT_EQ(WarningsOfMap("pid=7\tmodules=1\nlow=0\thigh=1\tbias=0\tbuildid=" + longest + "\tpath=" + longestPath),
              Texts());
    EXPECT_EQ(WarningsOfMap("pid=7\tmodules=0\n\n" + good), Texts()) << "one more than it says";
    const Texts none = {"  the map has no modules for this report"};
    for (const char* head :
         {"", "pid=7\n", "pid=\tmodules=1\n", "pid=7\tmodules=\n", "pid=7\tmodules=-1\n", "modules=1\n"})
        EXPECT_EQ(WarningsOfMap(head + good), none) << head;
}

TEST_F(OrvCrashInput, EscapesInAPathAreCharacters)
{
    const auto path = [&](const std::string& escaped) {
        EXPECT_EQ(WarningsOfMap("pid=7\tmodules=1\nlow=1\thigh=2\tbias=0\tbuildid=\tpath=" + escaped + "\n"), Texts());
        const Texts lines = Section(Shown(Whole), "Modules");
        return lines.empty() ? "" : lines[0].substr(29);
    };
    EXPECT_EQ(path("a\\134b\\011c"), "a\\b\tc");
    EXPECT_EQ(path("\\303\\251\\033[2J"), "\xc3\xa9\\x1b[2J");
    EXPECT_EQ(path("\\377\\1011"), "\\xffA1");
    // What is no escape stays: too large, zero, too short, no octal digits.
    for (const char* other : {"\\400", "\\000", "\\11", "\\1", "\\", "\\1a1", "\\189", "\\/11", "x\\"})
        EXPECT_EQ(path(other), other);
}

TEST_F(OrvCrashInput, ABlockOfAnotherReportIsNotTaken)
{
    const std::string module = "pid=7\tmodules=1\nlow=08000000\thigh=09000000\tbias=0\tbuildid=\tpath=";
    std::string later = Heading;
    later.replace(later.find("10:11:12"), 8, "10:11:13");
    WriteFile(map,
              "\n" + Heading + module + "first\n\n" + later + module + "other\n\n" + Heading + module + "second\n");
    const std::string all = Shown(Whole + "\n" + Whole + "\n" + Whole, {"--report", "all"});
    const size_t second = all.find("\n\n\nReport 2 of 3"), third = all.find("\n\n\nReport 3 of 3");
    ASSERT_NE(third, std::string::npos);
    EXPECT_NE(all.substr(0, second).find("  " + map + " has nothing about this report\n"), std::string::npos);
    EXPECT_EQ(Frames(all.substr(second, third - second))[0], "first+0x8048010");
    EXPECT_EQ(Frames(all.substr(third))[0], "second+0x8048010");
}

TEST_F(OrvCrashInput, TheMapLiesBesideAFileOfTheUsualNameOnly)
{
    const std::string block = "\n" + Heading + "pid=7\tmodules=0\n";
    const auto head = [&](const std::string& name) {
        WriteFile(directory.File(name), Whole);
        const ChildResult result =
            RunProgram("/bin/sh", {"-c", "cd " + directory.Path() + " && " + ProgramUnderTest(Tool) + " " + name});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return Lines(result.out)[3];
    };
    for (const char* name : {"billd.map", "billd.map.old", "core.map", ".map"})
        WriteFile(directory.File(name), block);
    EXPECT_EQ(head("billd.sig"), "  process  7");
    EXPECT_EQ(head("billd.sig.old"), "  process  7");
    for (const char* name : {"core", "billd.sig.older", "s", ".sig", ".sig.old"})
        EXPECT_EQ(head(name), "  no map: addresses have no names") << name;
    const std::string json = RunProgram(ProgramUnderTest(Tool), {"--json", directory.File("core")}).out;
    EXPECT_EQ(json.find("{\"file\":\"" + directory.File("core") + "\",\"map\":null,"), 0u) << json;
}

// ---- Large files and other files ----

TEST_F(OrvCrashInput, OfAVeryLargeReportTheBeginningIsRead)
{
    WriteFile(file, Heading + DumpLine + Registers + FrameLines + Stack);
    ASSERT_EQ(truncate(file.c_str(), 300000000), 0); // zeros, one line
    const int fd = open(file.c_str(), O_WRONLY | O_APPEND);
    ASSERT_EQ(write(fd, NoObjects.data(), NoObjects.size()), static_cast<ssize_t>(NoObjects.size()));
    close(fd);
    const ChildResult result = Ask({file});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.out.find("  the report is very large: only its beginning has been read\n"), std::string::npos);
    EXPECT_NE(result.out.find("  the objects are missing: the report ends before them\n"), std::string::npos);
    EXPECT_EQ(Frames(result.out).size(), 3u);
}

TEST_F(OrvCrashInput, AFileThatHasLessThanItSaysIsReadToItsEnd)
{
    const std::string number = "/sys/kernel/uevent_seqnum";
    struct stat status;
    if (stat(number.c_str(), &status) != 0 || status.st_size != 4096)
        GTEST_SKIP() << "needs " << number << " of 4096 bytes";
    const ChildResult result = Ask({number});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "orvcrash: " + number + ": no crash report in it\n");
}

// ---- All forms of output ----

// A report with all that there may be.
const std::string Rich = Heading + "of two lines \n" + DumpLine + "stray\n" + Registers + "u_ar0[\"\\]=00000001\n" +
                         "Dynamic link:\tReturn Address:\nbp=bf000020\tip=08048021\n\t 2 frame(s) left out\n" +
                         "bp=bf000030\tip=18048031\n" + Stack + "\nMonitored Objects: \nFirst tag: 0\n" + Begin("0") +
                         "a \"b\"\n" + End("0") + Begin("1") + "half\n\n*** The rest is left out: signal 11 ***\n";
const std::string RichMap = "\n" + Heading +
                            "pid=7\tmodules=2\nlow=08000000\thigh=09000000\tbias=08000000\tbuildid=\t"
                            "path=vdso\n";

TEST_F(OrvCrashInput, PrintsAllThatAReportMayHave)
{
    WriteFile(map, RichMap);
    EXPECT_EQ(Shown(Rich),
              "Report 1 of 1: 11/22/2026 10:11:12, SIGSEGV\n  signal   " + Segv +
                  " (Segmentation fault)\n  command  /opt/orv/bin/billd -q \nof two lines\n  process  7\n"
                  "  line 6 is not understood: stray\n  the map names 1 of 2 modules\n\n"
                  "Registers\n  UESP           bf000010  EIP            08048010  \"\\             00000001\n\n"
                  "Frames\n  #0           08048010  vdso+0x48010\n  #1           08048021  vdso+0x48021\n"
                  "       2 frames left out\n  #4           18048031\n\n"
                  "Modules\n          08000000-09000000  vdso\n      no names: no file\n\n"
                  "Stack\n  Stack: 0xbf000010 -- [size 32[0x20] bytes]\n"
                  "  bf000010: 00000001 00000002 00000003 00000004 [                ]\n  \t dup 1\n\n"
                  "Objects\n  First tag: 0\n\n  object 0\n    a \"b\"\n\n  object 1 (not whole)\n    half\n\n"
                  "  *** The rest is left out: signal 11 ***\n");
}

TEST_F(OrvCrashInput, PrintsAllThatAReportMayHaveInColour)
{
    WriteFile(map, RichMap);
    const std::string plain = Shown(Rich);
    const std::string coloured = OnTerminal({file}, "xterm", nullptr, "rest is left out: signal 11 ***");
    EXPECT_EQ(Replaced(coloured, "\033\\[[0-9]*m", ""), plain);
    Texts marked;
    for (size_t at = 0; (at = coloured.find("\033[", at)) != std::string::npos;) {
        const size_t end = coloured.find("\033[0m", at);
        marked.push_back(coloured.substr(at + 2, end - at - 2));
        at = end + 1;
    }
    EXPECT_EQ(marked,
              Texts({"1mReport 1 of 1: 11/22/2026 10:11:12, SIGSEGV", "31mline 6 is not understood: stray",
                     "31mthe map names 1 of 2 modules", "1mRegisters", "1mFrames", "1mModules", "31mno names: no file",
                     "1mStack", "1mObjects", "1mobject 0", "1mobject 1", "31m (not whole)"}));
}

TEST_F(OrvCrashInput, PrintsAllThatAReportMayHaveAsJson)
{
    WriteFile(map, RichMap);
    const std::string json = Shown(Rich, {"--json"});
    EXPECT_TRUE(Json::IsOne(json));
    EXPECT_EQ(
        json,
        "{\"file\":\"" + file + "\",\"map\":\"" + map +
            "\",\"count\":1,\"reports\":[{\"number\":1,\"date\":\"11/22/2026 10:11:12\",\"signal\":" + Segv +
            ",\"signal_name\":\"SIGSEGV\",\"command\":\"/opt/orv/bin/billd -q \\nof two lines\",\"pid\":7,"
            "\"registers\":{\"UESP\":\"0xbf000010\",\"EIP\":\"0x8048010\",\"\\\"\\\\\":\"0x1\"},\"frames\":["
            "{\"address\":\"0x8048010\",\"frame\":null,\"module\":\"vdso\",\"offset\":\"0x48010\","
            "\"function\":null,\"file\":null,\"line\":null,\"inlined_in\":[]},"
            "{\"address\":\"0x8048021\",\"frame\":\"0xbf000020\",\"module\":\"vdso\",\"offset\":\"0x48021\","
            "\"function\":null,\"file\":null,\"line\":null,\"inlined_in\":[]},"
            "{\"address\":\"0x18048031\",\"frame\":\"0xbf000030\",\"module\":null,\"offset\":null,"
            "\"function\":null,\"file\":null,\"line\":null,\"inlined_in\":[]}],\"frames_left_out\":2,"
            "\"modules\":[{\"path\":\"vdso\",\"build_id\":null,\"low\":\"0x8000000\",\"high\":\"0x9000000\","
            "\"bias\":\"0x8000000\",\"names_from\":null,\"problem\":\"no file\"}],"
            "\"stack\":{\"heading\":\"Stack: 0xbf000010 -- [size 32[0x20] bytes]\",\"rows\":["
            "\"bf000010: 00000001 00000002 00000003 00000004 [                ]\",\"\\t dup 1\"]},"
            "\"object_lines\":[\"First tag: 0\"],\"objects\":[{\"tag\":0,\"whole\":true,\"text\":\"a \\\"b\\\"\\n\"},"
            "{\"tag\":1,\"whole\":false,\"text\":\"half\\n\"}],"
            "\"remarks\":[\"*** The rest is left out: signal 11 ***\"],"
            "\"damage\":[\"line 6 is not understood: stray\",\"the map names 1 of 2 modules\"],"
            "\"map_problem\":null}]}\n");
}

TEST_F(OrvCrashInput, WhatIsNotKnownIsNull)
{
    const std::string json = Shown(NoObjects, {"--json"});
    EXPECT_TRUE(Json::IsOne(json));
    EXPECT_EQ(json,
              "{\"file\":\"" + file +
                  "\",\"map\":null,\"count\":1,\"reports\":[{\"number\":1,\"date\":null,\"signal\":null,"
                  "\"signal_name\":null,\"command\":null,\"pid\":null,\"registers\":{},\"frames\":[],"
                  "\"frames_left_out\":0,\"modules\":[],\"stack\":{\"heading\":null,\"rows\":[]},\"object_lines\":["
                  "\"No objects currently being monitored...\"],\"objects\":[],\"remarks\":[],\"damage\":["
                  "\"the first line is missing: date, signal and command are not known\","
                  "\"the registers are missing\",\"the frames are missing\",\"the stack is missing\"],"
                  "\"map_problem\":\"no map: " +
                  map + ": No such file or directory\"}]}\n");
}

TEST_F(OrvCrashInput, NoOutputIsLostUnseen)
{
    WriteFile(file, Whole);
    for (const char* option : {"", " --json", " --report all"}) {
        const ChildResult result =
            RunProgram("/bin/sh", {"-c", ProgramUnderTest(Tool) + " " + file + option + " >/dev/full"});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, "orvcrash: the output could not be written\n");
    }
}

} // namespace
