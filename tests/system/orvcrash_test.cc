// SPDX-License-Identifier: BSD-2-Clause
// orvcrash, on what programs that crash leave.
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/system/orvcrash_testing.h"

using namespace orvcrash_testing;

namespace {

// ---- What a crash leaves ----

TEST_F(OrvCrash, NamesTheFramesOfAPositionIndependentProgramAndItsSharedObject)
{
    const ChildResult result = Ask({Crash("orderd", {"-q", "two words"})});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(WithoutTimes(result.out).substr(0, result.out.find("  process") - 13),
              "Report 1 of 1: <time>, SIGSEGV\n  signal   " + Segv +
                  " (Segmentation fault)\n  command  /opt/orv/bin/orderd -q two words\n");
    ExpectFrames(result.out);
    EXPECT_EQ(Section(result.out, "Registers").size(), 5u);
    EXPECT_GT(Section(result.out, "Stack").size(), 10u);
    EXPECT_EQ(CountOf(result.out, "  /opt/orv/bin/libtariff.so\n"), 1) << "among the modules";
    EXPECT_EQ(result.out.substr(result.out.find("\nObjects\n")),
              "\nObjects\n  First tag: 0\n  Last tag:  1\n  Total still resident: 2\n\n  object 0\n    order 4711, 3 "
              "items\n\n  object 1\n    order 4712, 20 items\n");
}

TEST_F(OrvCrash, NamesTheFramesOfAProgramAtAFixedPlace)
{
    const ChildResult result = Ask({Crash("orderd_static")});
    EXPECT_EQ(result.exitCode, 0);
    ExpectFrames(result.out);
}

TEST_F(OrvCrash, NamesTheCallerOfAPointerThatLeadsNowhere)
{
    setenv("ORDER_ASKS", "", 1);
    const std::string file = Crash("orderd");
    unsetenv("ORDER_ASKS");
    const std::vector<std::string> frames = Frames(Ask({file}).out);
    ASSERT_GE(frames.size(), 3u);
    EXPECT_EQ(frames[0], "") << "no module is at 0";
    EXPECT_EQ(frames[1], "AskFor at tests/system/victim/tariff.cc:" + LineOf("tariff.cc", "= price()"));
    EXPECT_EQ(frames[2], ExpectedFrames()[3]);
}

TEST_F(OrvCrash, ShowsTheReportThatIsAskedFor)
{
    for (const char* argument : {"one", "two", "three"})
        Crash("orderd", {argument});
    const std::string file = Data + "orderd.sig";
    const auto shown = [&](const std::vector<std::string>& more) {
        std::vector<std::string> arguments = {file};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const ChildResult result = Ask(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        std::string numbers;
        for (const char* number : {"1", "2", "3"})
            numbers += result.out.find("Report " + std::string(number) + " of 3: ") != std::string::npos ? number : "";
        EXPECT_EQ(CountOf(result.out, "Discounted(long const*, long) at"), static_cast<int>(numbers.size()));
        return numbers;
    };
    EXPECT_EQ(shown({}), "3");
    EXPECT_EQ(shown({"--report", "last"}), "3");
    EXPECT_EQ(shown({"--report", "2"}), "2");
    EXPECT_EQ(shown({"--report", "all"}), "123");
    EXPECT_NE(Ask({file, "--report", "1"}).out.find("/opt/orv/bin/orderd one\n"), std::string::npos);
    const ChildResult none = Ask({file, "--report", "4"});
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_EQ(none.err, "orvcrash: " + file + ": has 3 report(s)\n");
}

TEST_F(OrvCrash, WithoutAMapAddressesStandAsTheyAre)
{
    const std::string file = Crash("orderd");
    const std::string map = Data + "orderd.map";
    ASSERT_EQ(rename(map.c_str(), (Data + "kept").c_str()), 0);
    const ChildResult without = Ask({file});
    EXPECT_EQ(without.exitCode, 0);
    EXPECT_NE(without.out.find("  no map: " + map + ": No such file or directory\n"), std::string::npos);
    ASSERT_GE(Frames(without.out).size(), 4u);
    for (const std::string& frame : Frames(without.out))
        EXPECT_EQ(frame, "") << "an address only";
    ExpectFrames(Ask({file, "--map", Data + "kept"}).out);
    WriteFile(map, "\n11/22/2026 00:00:00. SIGNAL 6 detected. ProgInfo=other \npid=1\tmodules=0\n");
    EXPECT_NE(Ask({file}).out.find("  " + map + " has nothing about this report\n"), std::string::npos);
    unlink((Data + "kept").c_str());
}

TEST_F(OrvCrash, FindsTheMapOfAFileThatWasMovedAway)
{
    Crash("orderd");
    rename((Data + "orderd.sig").c_str(), (Data + "orderd.sig.old").c_str());
    rename((Data + "orderd.map").c_str(), (Data + "orderd.map.old").c_str());
    ExpectFrames(Ask({Data + "orderd.sig.old"}).out);
}

// Two reports, of which the first was written by a program that kept no map yet.
TEST_F(OrvCrash, AMapThatBeganLaterBelongsToTheLastReports)
{
    const std::string file = Crash("orderd");
    unlink((Data + "orderd.map").c_str());
    Crash("orderd");
    const std::string all = Ask({file, "--report", "all"}).out;
    const size_t second = all.find("Report 2 of 2");
    ExpectFrames(all.substr(second));
    EXPECT_NE(all.substr(0, second).find("  " + Data + "orderd.map has nothing about this report\n"),
              std::string::npos);
}

// ---- Another machine ----

TEST_F(OrvCrash, FindsTheFilesBelowARoot)
{
    const std::string file = Crash("orderd");
    const TemporaryDirectory root;
    const TemporaryDirectory flat;
    for (const char* directory : {"/opt", "/opt/orv", "/opt/orv/bin"})
        mkdir((root.Path() + directory).c_str(), 0755);
    for (const char* name : {"orderd", "libtariff.so", "libzeloo.so.1"}) {
        Copy(Programs + name, root.Path() + Programs + name);
        Copy(Programs + name, flat.File(name));
        unlink((Programs + name).c_str());
    }
    const std::string without = Ask({file}).out;
    EXPECT_NE(without.find("no names: /opt/orv/bin/orderd is not there\n"), std::string::npos) << without;
    EXPECT_EQ(Replaced(Frames(without)[0], "[0-9a-f]+$", "N"), "/opt/orv/bin/libtariff.so+0xN");
    ExpectFrames(Ask({file, "--root", root.Path()}).out);
    ExpectFrames(Ask({file, "--root", flat.Path()}).out);
}

TEST_F(OrvCrash, AFileOfAnotherBuildIsNotUsed)
{
    const std::string file = Crash("orderd");
    Copy(ORDERD_STATIC, Programs + "libtariff.so");
    const std::string text = Ask({file}).out;
    EXPECT_EQ(Replaced(Frames(text)[0], "[0-9a-f]+$", "N"), "/opt/orv/bin/libtariff.so+0xN");
    EXPECT_EQ(Replaced(text, "[0-9a-f]{40}", "ID")
                      .find("no names: /opt/orv/bin/libtariff.so is another one, and is not "
                            "used: its build id is ID, not ID\n") == std::string::npos,
              false)
        << text;
    EXPECT_EQ(Frames(text)[3], ExpectedFrames()[3]) << "the others have names";
}

TEST_F(OrvCrash, UsesDebugFilesAndTheNamesOfStrippedSharedObjects)
{
    if (!Has("objcopy") || !Has("strip"))
        GTEST_SKIP() << "needs objcopy and strip (binutils)";
    const TemporaryDirectory root;
    const std::string file = Crash("orderd");
    // Both are stripped; the program's debug file is kept.
    const std::string map = ReadFile(Data + "orderd.map");
    const size_t at = map.find("buildid=") + 8;
    const std::string id = map.substr(at, 40);
    std::string directory = root.Path();
    for (const std::string& part : {std::string("/usr"), std::string("/lib"), std::string("/debug"),
                                    std::string("/.build-id"), "/" + id.substr(0, 2)})
        mkdir((directory += part).c_str(), 0755);
    const std::string program = Programs + "orderd", debug = directory + "/" + id.substr(2) + ".debug";
    ASSERT_EQ(RunProgram("/usr/bin/objcopy", {"--only-keep-debug", program, debug}).exitCode, 0);
    mkdir((root.Path() + "/opt").c_str(), 0755);
    Copy(Programs + "libtariff.so", root.File("libtariff.so"));
    ASSERT_EQ(RunProgram("/usr/bin/strip", {root.File("libtariff.so")}).exitCode, 0);
    const std::string text = Ask({file, "--root", root.Path()}).out;
    const std::vector<std::string> frames = Frames(text);
    ASSERT_GE(frames.size(), 4u);
    EXPECT_EQ(Replaced(frames[0], "[0-9a-f]+$", "N"), "/opt/orv/bin/libtariff.so+0xN") << "a static function";
    EXPECT_EQ(frames[1], "TariffOf in /opt/orv/bin/libtariff.so");
    EXPECT_EQ(frames[2], ExpectedFrames()[2]);
    EXPECT_NE(text.find("names from " + debug + "\n"), std::string::npos);
}

TEST_F(OrvCrash, WithoutTheProgramsItAsksItSaysSo)
{
    const std::string file = Crash("orderd");
    const ChildResult result = RunProgram("/usr/bin/env", {"PATH=/nowhere", ProgramUnderTest(Tool), file});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.out.find("  no names: addr2line (binutils) is not here\n"), std::string::npos);
    EXPECT_EQ(Replaced(Frames(result.out)[0], "[0-9a-f]+$", "N"), "/opt/orv/bin/libtariff.so+0xN");
}

// ---- Files in pieces ----

TEST_F(OrvCrash, ShowsWhatATruncatedFileHas)
{
    const std::string whole = ReadFile(Crash("orderd"));
    const std::string file = Data + "cut.sig";
    const auto cutAt = [&](size_t length) {
        WriteFile(file, whole.substr(0, length));
        return Ask({file});
    };
    EXPECT_NE(cutAt(whole.find("Stack: 0x")).out.find("  the stack is missing\n"), std::string::npos);
    EXPECT_NE(
        cutAt(whole.find("Monitored Objects")).out.find("  the objects are missing: the report ends before them\n"),
        std::string::npos);
    EXPECT_NE(cutAt(whole.find("items")).out.find("  the report ends within the object of tag 0\n"), std::string::npos);
    EXPECT_NE(cutAt(whole.find("u_ar0[")).out.find("  the registers are missing\n"), std::string::npos);
    const ChildResult heading = cutAt(40);
    EXPECT_EQ(heading.exitCode, 1);
    EXPECT_EQ(heading.err, "orvcrash: " + file + ": no crash report in it\n");
    // The end of a file: no date, but all that is behind it.
    WriteFile(file, whole.substr(whole.find("u_ar0[")));
    const ChildResult tail = Ask({file});
    EXPECT_NE(tail.out.find("Report 1 of 1\n"), std::string::npos);
    EXPECT_NE(tail.out.find("  the first line is missing: date, signal and command are not known\n"),
              std::string::npos);
    EXPECT_EQ(Section(tail.out, "Registers").size(), 5u);
    for (size_t length = 0; length < whole.size(); length += 487)
        cutAt(length); // no signal
    unlink(file.c_str());
}

TEST_F(OrvCrash, ADamagedLineIsShownAndTheOthersAreRead)
{
    std::string text = ReadFile(Crash("orderd"));
    const std::string file = Data + "damaged.sig";
    text.replace(text.find("u_ar0[EAX]="), 11, "u_ar0[E\033[2J");
    text.insert(text.find("Dynamic link"), std::string(3, '\0') + "\xff\xc3\xa9\n");
    WriteFile(file, text);
    const std::string shown = Ask({file}).out;
    EXPECT_NE(shown.find(" is not understood: u_ar0[E\\x1b[2J"), std::string::npos) << "nothing reaches the terminal";
    EXPECT_NE(shown.find(" is not understood: \\x00\\x00\\x00\\xff\xc3\xa9\n"), std::string::npos);
    EXPECT_EQ(CountOf(shown, "EAX"), 0);
    EXPECT_EQ(CountOf(shown, "\033"), 0);
    EXPECT_NE(shown.find("  object 1\n    order 4712, 20 items\n"), std::string::npos);
    EXPECT_TRUE(Json::IsOne(Ask({file, "--json"}).out));
    unlink(file.c_str());
}

TEST_F(OrvCrash, ALargeFileIsNotReadWhole)
{
    const std::string report = ReadFile(Crash("orderd"));
    const std::string file = Data + "large.sig";
    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666);
    ASSERT_EQ(write(fd, report.data(), report.size()), static_cast<ssize_t>(report.size()));
    ASSERT_EQ(ftruncate(fd, 3000000000), 0); // zeros, one line
    ASSERT_EQ(lseek(fd, 0, SEEK_END), 3000000000);
    ASSERT_EQ(write(fd, report.data(), report.size()), static_cast<ssize_t>(report.size()));
    close(fd);
    const ChildResult last = Ask({file, "--map", Data + "orderd.map"});
    EXPECT_NE(last.out.find("Report 2 of 2"), std::string::npos);
    ExpectFrames(last.out);
    unlink(file.c_str());
}

TEST_F(OrvCrash, WhatTheObjectsSayIsNoReport)
{
    setenv("ORDER_REMARK", "11/22/2026 00:00:00. SIGNAL 11 detected", 1);
    const std::string file = Crash("orderd");
    EXPECT_NE(Ask({file}).out.find("    11/22/2026 00:00:00. SIGNAL 11 detected\n"), std::string::npos);
    unsetenv("ORDER_REMARK");
}

TEST_F(OrvCrash, AMapInPiecesCostsNamesOnly)
{
    const std::string file = Crash("orderd");
    const std::string map = ReadFile(Data + "orderd.map");
    const std::string damaged = Data + "damaged.map";
    WriteFile(damaged, map.substr(0, map.find("buildid=")) + "\nlow=zz\thigh=\nlow=" + std::string(100000, 'f') + "\n");
    const ChildResult result = Ask({file, "--map", damaged});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.out.find("  the map names 0 of "), std::string::npos);
    EXPECT_NE(result.out.find("  3 line(s) of the map are not understood\n"), std::string::npos);
    for (size_t length = 0; length < map.size(); length += 97) {
        WriteFile(damaged, map.substr(0, length));
        EXPECT_EQ(Ask({file, "--map", damaged}).exitCode, 0);
    }
    unlink(damaged.c_str());
}

TEST_F(OrvCrash, WhatIsNoCrashFileIsSaidToBeNone)
{
    const TemporaryDirectory directory;
    const std::string path = directory.File("x.sig");
    const auto error = [&] {
        const ChildResult result = Ask({path});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.out, "");
        return result.err.substr(("orvcrash: " + path + ": ").size());
    };
    EXPECT_EQ(error(), "No such file or directory\n");
    WriteFile(path, "");
    EXPECT_EQ(error(), "no crash report in it\n");
    WriteFile(path, ReadFile(Tool).substr(0, 100000));
    EXPECT_EQ(error(), "no crash report in it\n");
    unlink(path.c_str());
    mkfifo(path.c_str(), 0666);
    EXPECT_EQ(error(), "not a regular file\n");
    unlink(path.c_str());
    mkdir(path.c_str(), 0755);
    EXPECT_EQ(error(), "not a regular file\n");
}

// ---- The program ----

TEST_F(OrvCrash, PrintsJson)
{
    const std::string file = Crash("orderd", {"\"quoted\\\"", "line\nend\t\x01"});
    Crash("orderd");
    const std::string text = Ask({file, "--json", "--report", "all"}).out;
    EXPECT_TRUE(Json::IsOne(text)) << text;
    EXPECT_EQ(WithoutTimes(text).find("{\"file\":\"/var/orv/data/orderd.sig\",\"map\":\"/var/orv/data/orderd.map\","
                                      "\"count\":2,\"reports\":[{\"number\":1,\"date\":\"<time>\",\"signal\":" +
                                      Segv +
                                      ",\"signal_name\":\"SIGSEGV\",\"command\":\"/opt/orv/bin/orderd "
                                      "\\\"quoted\\\\\\\" line\\nend\\t\\\\x01\",\"pid\":"),
              0u)
        << text;
    EXPECT_EQ(CountOf(text, "\"function\":\"Discounted(long const*, long)\",\"file\":\"tests/system/victim/tariff.cc\","
                            "\"line\":" +
                                LineOf("tariff.cc", "*rates * items") + ",\"inlined_in\":[]"),
              2)
        << text;
    EXPECT_EQ(CountOf(text, "{\"tag\":0,\"whole\":true,\"text\":\"order 4711, 3 items\\n\"}"), 2);
    EXPECT_EQ(CountOf(text, "\"damage\":[]"), 2);
    EXPECT_FALSE(Json::IsOne(text.substr(1))) << "the check itself";
}

TEST_F(OrvCrash, UsesColourOnATerminalOnly)
{
    const std::string file = Crash("orderd");
    EXPECT_EQ(CountOf(Ask({file}).out, "\033"), 0);
    const auto onTerminal = [&](const char* term, const char* noColour) {
        return CountOf(OnTerminal({file}, term, noColour, "4712, 20 items"), "\033[1mFrames\033[0m");
    };
    EXPECT_EQ(onTerminal("xterm", nullptr), 1);
    EXPECT_EQ(onTerminal("dumb", nullptr), 0);
    EXPECT_EQ(onTerminal(nullptr, nullptr), 0);
    EXPECT_EQ(onTerminal("xterm", "1"), 0);
}

TEST_F(OrvCrash, SaysHowItIsUsed)
{
    const ChildResult help = Ask({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.out.substr(0, help.out.find('\n')),
              "usage: orvcrash FILE [--map FILE] [--report NUMBER|last|all] [--root DIRECTORY] [--json]");
    EXPECT_EQ(Ask({"--version"}).out, "orvcrash " VERSION "\n");
    const std::vector<std::vector<std::string>> wrong = {{},
                                                         {"a", "b"},
                                                         {"--what"},
                                                         {"a", "--map"},
                                                         {"a", "--report", "0"},
                                                         {"a", "--report", "-1"},
                                                         {"a", "--report", "first"},
                                                         {"a", "--map", ""},
                                                         {"--json"},
                                                         {""}};
    for (const auto& arguments : wrong) {
        const ChildResult result = Ask(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, help.out);
    }
}

TEST_F(OrvCrash, AnOutputThatCannotBeWrittenIsAFailure)
{
    const std::string file = Crash("orderd");
    const ChildResult result = RunProgram("/bin/sh", {"-c", ProgramUnderTest(Tool) + " " + file + " >/dev/full"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "orvcrash: the output could not be written\n");
}

// ---- The documentation ----

// What is the same in every run and on every machine: not addresses, process ids, other libraries and rows of the stack.
std::string Lasting(const std::string& text)
{
    std::string kept;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size() - 1);
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const bool isOther = line.find(" /usr/lib") != std::string::npos ||
                             line.find("  linux-") != std::string::npos || // linux-vdso.so.1, linux-gate.so.1
                             line.find("__libc_start") != std::string::npos || line == "  ...";
        const bool isRow = line.find("\t dup ") != std::string::npos ||
                           (!line.empty() && Replaced(line, "^  [0-9a-f]+: [0-9a-f]{8} .*$", "").empty());
        if (!isOther && !isRow)
            kept += line + "\n";
    }
    kept = Replaced(kept, " +[0-9a-f]{8,16}", " ADDRESS");
    kept = Replaced(kept, "-[0-9a-f]{8,16}", "-ADDRESS");
    kept = Replaced(kept, "0x[0-9a-f]+", "0xN");
    kept = Replaced(kept, "size [0-9]+", "size N");
    kept = Replaced(kept, "process  [0-9]+", "process  N");
    return WithoutTimes(kept);
}

TEST_F(OrvCrash, ItsTextInTheDocumentationIsWhatItPrints)
{
    const std::string page = ReadFile(OPERATING);
    const std::string begin = "    $ orvcrash /var/orv/data/orderd.sig\n";
    const size_t at = page.find(begin);
    ASSERT_NE(at, std::string::npos);
    std::string sample;
    for (size_t from = at + begin.size(); from < page.size();) {
        const size_t end = page.find('\n', from) + 1;
        const std::string line = page.substr(from, end - from);
        if (line != "\n" && line.compare(0, 4, "    ") != 0)
            break;
        sample += line == "\n" ? line : line.substr(4);
        from = end;
    }
    while (sample.size() > 1 && sample.substr(sample.size() - 2) == "\n\n")
        sample.pop_back();
    const std::string printed = Ask({Crash("orderd")}).out;
    EXPECT_EQ(Lasting(sample), Lasting(printed)) << printed;
}

} // namespace
