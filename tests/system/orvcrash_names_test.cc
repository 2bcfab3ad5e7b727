// SPDX-License-Identifier: BSD-2-Clause
// orvcrash, and the files and programs of the host that it asks for names.
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/support/failing_calls.h"
#include "tests/system/orvcrash_testing.h"

using namespace orvcrash_testing;

namespace {

using Texts = std::vector<std::string>;

const std::string Library = Programs + "libtariff.so";
const std::string Source = "tests/system/victim/tariff.cc:";

// The offset in its module of the last frame that has no name.
std::string Unnamed(const std::string& frame) { return Replaced(frame, "[0-9a-f]+$", "N"); }

// A directory that is the PATH, where the programs that orvcrash asks lie.
class OrvCrashNames : public OrvCrash {
protected:
    void SetUp() override
    {
        OrvCrash::SetUp();
        if (IsSkipped())
            return;
        for (const std::string name : {"addr2line", "readelf", "nm"})
            ASSERT_EQ(symlink(PathOf(name).c_str(), path.File(name).c_str()), 0);
    }
    // Puts a script in the place of one of them.
    void Replace(const std::string& name, const std::string& script)
    {
        unlink(path.File(name).c_str());
        WriteFile(path.File(name), "#!/bin/sh\n" + script);
        chmod(path.File(name).c_str(), 0755);
    }
    // What is said with this PATH.
    std::string Shown(const Texts& arguments) { return ShownWith("PATH=" + path.Path(), arguments); }
    static std::string ShownWith(const std::string& setting, const Texts& arguments)
    {
        Texts all = {setting, ProgramUnderTest(Tool)};
        if (setting.empty())
            all = {"-u", "PATH", ProgramUnderTest(Tool)};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const ChildResult result = RunProgram("/usr/bin/env", all);
        EXPECT_EQ(result.exitCode, 0) << result.signal << result.err;
        EXPECT_EQ(result.err, "");
        return Replaced(result.out, "[^ \"]*tests/system/victim/", "tests/system/victim/");
    }
    // A crash file of which one module is known, without a build id: this file, at 0.
    std::string Made(const std::string& frames = "")
    {
        const std::string heading = "11/22/2026 10:11:12. SIGNAL 11 detected. ProgInfo=billd \n";
        WriteFile(path.File("billd"), "");
        WriteFile(path.File("x.sig"), heading + "u_ar0[EIP]=00001234\nDynamic link:\tReturn Address:\n" + frames);
        WriteFile(path.File("x.map"), "\n" + heading + "pid=7\tmodules=1\nlow=0\thigh=10000\tbias=0\tbuildid=\tpath=" +
                                          path.File("billd") + "\n");
        return path.File("x.sig");
    }
    // The first frame when addr2line and nm answer this.
    std::string Named(const std::string& addr2line, const std::string& nm = "")
    {
        Replace("readelf", "");
        Replace("addr2line", "cat <<'END'\n" + addr2line + "END\n");
        Replace("nm", "cat <<'END'\n" + nm + "END\n");
        const std::string text = ShownWith("PATH=" + path.Path() + ":/usr/bin:/bin", {Made()});
        const Texts frames = Frames(text);
        return frames.empty() ? "" : Replaced(frames[0], path.Path().c_str(), "");
    }
    // What is said of a module, below it.
    static Texts Notes(const std::string& text, const std::string& module)
    {
        Texts notes;
        bool isIt = false;
        for (const std::string& line : Section(text, "Modules"))
            if (line.compare(0, 6, "      ") == 0 && line[6] == 'n' && isIt)
                notes.push_back(Replaced(line.substr(6), "[0-9a-f]{40}", "ID"));
            else if (line[6] != 'n')
                isIt = line.size() > module.size() && line.substr(line.size() - module.size()) == module;
        return notes;
    }
    static std::string MapWith(const std::string& from, const std::string& to)
    {
        std::string map = ReadFile(Data + "orderd.map");
        const size_t at = map.find(from);
        EXPECT_NE(at, std::string::npos) << map;
        map.replace(at, from.size(), to);
        WriteFile(Data + "orderd.map", map);
        return map;
    }
    // The build id of libtariff.so in the map.
    static std::string IdOfLibrary()
    {
        const std::string map = ReadFile(Data + "orderd.map");
        const size_t end = map.find("\tpath=" + Library), begin = map.rfind("buildid=", end) + 8;
        return map.substr(begin, end - begin);
    }

    const TemporaryDirectory path;
};

// ---- Real files ----

TEST_F(OrvCrashNames, AnInlinedFunctionNamesThoseThatItIsInlinedIn)
{
    setenv("ORDER_ASKS", "half", 1);
    const std::string file = Crash("orderd");
    unsetenv("ORDER_ASKS");
    const std::string text = Ask({file}).out;
    const Texts frames = Frames(text);
    ASSERT_GE(frames.size(), 3u);
    EXPECT_EQ(frames[0], "Halved(long const*) at " + Source + LineOf("tariff.cc", "*rates / 2"));
    EXPECT_EQ(frames[1],
              std::string(25, ' ') + "inlined in HalfTariff at " + Source + LineOf("tariff.cc", "return Halved("));
    EXPECT_EQ(frames[2], "AskFor at " + Source + LineOf("tariff.cc", "= price()"));
    const std::string json = Ask({file, "--json"}).out;
    EXPECT_TRUE(Json::IsOne(json));
    EXPECT_EQ(
        CountOf(json, "\"function\":\"Halved(long const*)\",\"file\":\"tests/system/victim/tariff.cc\",\"line\":" +
                          LineOf("tariff.cc", "*rates / 2") +
                          ",\"inlined_in\":[{\"function\":\"HalfTariff\",\"file\":"
                          "\"tests/system/victim/tariff.cc\",\"line\":" +
                          LineOf("tariff.cc", "return Halved(") + "}]"),
        1)
        << json;
}

TEST_F(OrvCrashNames, AProgramOfAnUnusualPathIsFound)
{
    const std::string directory = Programs + "a\\b\tc\x01";
    mkdir(directory.c_str(), 0755);
    for (const char* name : {"orderd", "libtariff.so", "libzeloo.so.1"})
        Copy(Programs + name, directory + "/" + name);
    EXPECT_EQ(RunProgram(directory + "/orderd", {}).signal, SIGABRT);
    const std::string text = Ask({Data + "orderd.sig"}).out;
    ExpectFrames(text);
    EXPECT_EQ(CountOf(text, "  /opt/orv/bin/a\\b\tc\\x01/libtariff.so\n"), 1) << text;
    for (const char* name : {"orderd", "libtariff.so", "libzeloo.so.1"})
        unlink((directory + "/" + name).c_str());
    rmdir(directory.c_str());
}

TEST_F(OrvCrashNames, AFileThatWasDeletedAndIsThereAgainIsUsed)
{
    const std::string file = Crash("orderd");
    MapWith("libtariff.so\n", "libtariff.so (deleted)\n");
    const std::string text = Ask({file}).out;
    ExpectFrames(text);
    EXPECT_EQ(Notes(text, "libtariff.so (deleted)"), Texts({"names from " + Library}));
    MapWith("path=" + Library + " (deleted)\n", "path= (deleted)\n");
    EXPECT_EQ(Notes(Ask({file}).out, " (deleted)"), Texts({"no names: no file"}));
    MapWith("path= (deleted)\n", "path=\n");
    EXPECT_EQ(Unnamed(Frames(Ask({file}).out)[0]), "+0xN") << "no path at all";
}

TEST_F(OrvCrashNames, WithoutABuildIdThePathTells)
{
    if (!Has("objcopy"))
        GTEST_SKIP() << "needs objcopy (binutils)";
    const std::string file = Crash("orderd"), id = IdOfLibrary();
    ASSERT_EQ(id.size(), 40u);
    // The map has none, the file has.
    MapWith("buildid=" + id, "buildid=");
    EXPECT_EQ(Notes(Ask({file}).out, Library),
              Texts({"no names: " + Library + " is another one, and is not used: its build id is ID, not missing"}));
    // Neither has.
    ASSERT_EQ(RunProgram("/usr/bin/objcopy", {"--remove-section=.note.gnu.build-id", Library}).exitCode, 0);
    const std::string text = Ask({file}).out;
    ExpectFrames(text);
    EXPECT_EQ(Notes(text, Library), Texts());
    // A file of its name in another directory may be any.
    const TemporaryDirectory root;
    Copy(Library, root.File("libtariff.so"));
    EXPECT_EQ(Notes(Ask({file, "--root", root.Path()}).out, Library),
              Texts({"no names: " + root.Path() + Library + " is not there"}));
    // The map has one, of which no debug file can have its name; the file has none.
    for (const char* some : {"a", "ab", "abc"}) {
        MapWith("buildid=\tpath=" + Library, std::string("buildid=") + some + "\tpath=" + Library);
        EXPECT_EQ(Notes(Ask({file}).out, Library), Texts({"no names: " + Library +
                                                          " is another one, and is not used: its build id is missing, "
                                                          "not " +
                                                          some}));
        MapWith(std::string("buildid=") + some + "\tpath=" + Library, "buildid=\tpath=" + Library);
    }
}

TEST_F(OrvCrashNames, ADebugFileOfAnotherBuildIsPassedOver)
{
    const std::string file = Crash("orderd"), id = IdOfLibrary();
    const TemporaryDirectory root;
    std::string directory = root.Path();
    for (const std::string& part : {std::string("/usr"), std::string("/lib"), std::string("/debug"),
                                    std::string("/.build-id"), "/" + id.substr(0, 2)})
        mkdir((directory += part).c_str(), 0755);
    const std::string debug = directory + "/" + id.substr(2) + ".debug";
    Copy(Programs + "orderd", debug);
    EXPECT_EQ(Notes(Ask({file, "--root", root.Path()}).out, Library),
              Texts({"no names: " + debug + " is another one, and is not used: its build id is ID, not ID"}));
    Copy(Library, root.File("libtariff.so"));
    EXPECT_EQ(Notes(Ask({file, "--root", root.Path()}).out, Library),
              Texts({"names from " + root.File("libtariff.so")}));
}

// A file that has kept one symbol, in which addr2line sees nothing else.
TEST_F(OrvCrashNames, ExportedNamesAreFoundBesideAFewSymbols)
{
    if (!Has("strip"))
        GTEST_SKIP() << "needs strip (binutils)";
    const std::string file = Crash("orderd");
    ASSERT_EQ(RunProgram("/usr/bin/strip", {"--keep-symbol=noRates", "--keep-symbol=_ZL7noRates", Library}).exitCode,
              0);
    const Texts frames = Frames(Ask({file}).out);
    ASSERT_GE(frames.size(), 3u);
    EXPECT_EQ(Unnamed(frames[0]), Library + "+0xN") << "a static function";
    EXPECT_EQ(frames[1], "TariffOf in " + Library);
    EXPECT_EQ(frames[2], ExpectedFrames()[2]);
}

// ---- What the programs say ----

TEST_F(OrvCrashNames, AnswersOfAddr2lineAreTakenAsFarAsTheyGo)
{
    const std::string at = "0x0000000000001234\n";
    EXPECT_EQ(Named(at + "f(int)\nx.cc:12\n"), "f(int) at x.cc:12");
    EXPECT_EQ(Named(at + "f\nx.cc:12 (discriminator 3)\n"), "f at x.cc:12");
    EXPECT_EQ(Named(at + "f\nC:x.cc:12\n"), "f at C:x.cc:12");
    EXPECT_EQ(Named(at + "f\nx.cc:?\n"), "f at x.cc");
    EXPECT_EQ(Named(at + "??\nx.s:12\n"), "?? at x.s:12");
    EXPECT_EQ(Named(at + "f\033[2J\nx.cc:1\n"), "f\\x1b[2J at x.cc:1");
    // What is called f may be the nearest function before, however short that is.
    for (const char* nearest : {"f\n??:0\n", "f\n??:?\n", "f\nno line\n", "f\n:12\n", "f\n"})
        EXPECT_EQ(Named(at + nearest), "/billd+0x1234") << nearest;
    EXPECT_EQ(Named(at + "f\n??:0\n", "1230 5 t g\n"), "g in /billd");
    EXPECT_EQ(Named("warning\n" + at + "f\nx.cc:12\n"), "f at x.cc:12");
    for (const std::string& none : {std::string(), at, at + "??\n??:0\n", std::string("f\nx.cc:12\n"),
                                    std::string("0x\nf\nx.cc:12\n"), std::string("0x0000000000001235\nf\nx.cc:12\n")})
        EXPECT_EQ(Named(none), "/billd+0x1234") << none;
}

TEST_F(OrvCrashNames, AnswersOfNmNameTheFunctionAroundAnAddress)
{
    const std::string before = "0000000000001000 0000000000000234 T before\n";
    const std::string around = "0000000000001230 0000000000000005 T f(int, char)@@V_1.0\n";
    const std::string behind = "0000000000001235 0000000000000100 T behind\n";
    EXPECT_EQ(Named("", behind + around + before), "f(int, char) in /billd") << "in any order";
    EXPECT_EQ(Named("", before + behind), "/billd+0x1234");
    EXPECT_EQ(Named("", behind), "/billd+0x1234");
    EXPECT_EQ(Named("", before), "/billd+0x1234");
    for (const char* type : {"t", "W", "w", "i"})
        EXPECT_EQ(Named("", std::string("1234 1 ") + type + " f\n"), "f in /billd");
    // Data, and what is no line of a symbol with its size.
    for (const char* other : {"1234 1 D f\n", "1234 1 B f\n", "1234 T f\n", "1234 T f(int, int)\n", "x 1 T f\n",
                              "1234 x T f\n", "1234\n", "1234 1\n", "1234 1 T\n", "                 U f\n", "nm: x\n"})
        EXPECT_EQ(Named("", other), "/billd+0x1234") << other;
}

TEST_F(OrvCrashNames, ManyAddressesAreAskedForInSeveralParts)
{
    std::string frames;
    for (int i = 0; i < 1199; i++) {
        char line[64];
        snprintf(line, sizeof line, "bp=%08x\tip=%08x\n", 0x20000 + 16 * i, 0x2001 + 16 * i);
        frames += line;
    }
    const std::string log = path.File("log");
    Replace("readelf", "");
    Replace("addr2line",
            "echo call >>" + log + "\nshift 6\nfor at; do echo \"$at\"; echo \"at_$at\"; echo x.cc:1; done\n");
    const Texts named = Frames(Shown({Made(frames)}));
    ASSERT_EQ(named.size(), 1200u);
    EXPECT_EQ(named[0], "at_0x00001234 at x.cc:1");
    EXPECT_EQ(named[1], "at_0x00002000 at x.cc:1");
    EXPECT_EQ(named[1199], "at_0x00006ae0 at x.cc:1");
    EXPECT_EQ(ReadFile(log), "call\ncall\ncall\n");
}

// ---- Programs that fail ----

TEST_F(OrvCrashNames, AProgramThatFailsCostsNamesOnly)
{
    const std::string file = Crash("orderd");
    const auto frames = [&] {
        const std::string text = Shown({file});
        EXPECT_EQ(CountOf(text, "order 4712, 20 items"), 1);
        Texts shown = Frames(text);
        shown.resize(2);
        return Texts({Unnamed(shown[0]), shown[1]});
    };
    const Texts whole = {Replaced(ExpectedFrames()[0], "[0-9a-f]+$", "N"), ExpectedFrames()[1]};
    const Texts lineless = {"Discounted(long const*, long) in " + Library, "TariffOf in " + Library},
                none = {Library + "+0xN", Library + "+0xN"};
    EXPECT_EQ(frames(), whole);
    const auto bare = [&](Texts shown) {
        for (std::string& frame : shown)
            frame = Unnamed(frame);
        return shown;
    };
    const std::string answer = PathOf("addr2line") + " \"$@\"\n";
    Replace("addr2line", answer + "exit 1\n");
    EXPECT_EQ(frames(), lineless);
    Replace("addr2line", answer + "kill -TERM $$\n");
    EXPECT_EQ(frames(), lineless);
    unlink(path.File("addr2line").c_str());
    WriteFile(path.File("addr2line"), "no program of this machine");
    chmod(path.File("addr2line").c_str(), 0755);
    EXPECT_EQ(frames(), lineless);
    Replace("nm", "exit 1\n");
    EXPECT_EQ(bare(frames()), none);
    Replace("readelf", "exit 1\n");
    const std::string text = Shown({file});
    EXPECT_EQ(Notes(text, Library),
              Texts({"no names: " + Library + " is another one, and is not used: its build id is missing, not ID"}));
}

// It has as long as it likes for its output, up to a minute, but little more to end.
TEST_F(OrvCrashNames, AProgramThatGoesOnBehindItsOutputIsStopped)
{
    const std::string id = path.File("id");
    Replace("readelf", "");
    Replace("addr2line", "echo $$ >" + id + "\necho 0x1234; echo f; echo x.cc:1\nexec 1>&-\nexec /bin/sleep 1000\n");
    const Texts frames = Frames(Shown({Made()}));
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(Replaced(frames[0], path.Path().c_str(), ""), "/billd+0x1234");
    const pid_t pid = std::atoi(ReadFile(id).c_str());
    EXPECT_GT(pid, 0);
    EXPECT_EQ(kill(pid, 0), -1) << "it has been killed";
}

TEST_F(OrvCrashNames, AProgramThatWritesWithoutEndIsStopped)
{
    Replace("readelf", "");
    Replace("addr2line", "trap '' PIPE\necho 0x1234; echo f; echo x.cc:1\n"
                         "/usr/bin/yes 0123456789012345678901234567890123456789\nexit 0\n");
    const Texts frames = Frames(Shown({Made()}));
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(Replaced(frames[0], path.Path().c_str(), ""), "/billd+0x1234");
}

TEST_F(OrvCrashNames, TheProgramsAreLookedForOnThePath)
{
    const std::string file = Crash("orderd");
    ExpectFrames(ShownWith("", {file})); // the usual directories
    ExpectFrames(ShownWith("PATH=/nowhere:" + path.Path(), {file}));
    ExpectFrames(ShownWith("PATH=:/nowhere::" + path.Path() + ":", {file}));
    const auto problem = [&](const std::string& setting) {
        const std::string text = ShownWith(setting, {file});
        const size_t at = text.find("  no names: ");
        return at == std::string::npos ? "" : text.substr(at, text.find('\n', at) - at);
    };
    EXPECT_EQ(problem("PATH="), "  no names: addr2line (binutils) is not here");
    unlink(path.File("nm").c_str());
    WriteFile(path.File("nm"), "may not be run");
    EXPECT_EQ(problem("PATH=" + path.Path()), "  no names: nm (binutils) is not here");
    unlink(path.File("readelf").c_str());
    EXPECT_EQ(problem("PATH=" + path.Path()), "  no names: readelf (binutils) is not here") << "the first one";
}

// As below a daemon that has no use for its children's ends.
TEST_F(OrvCrashNames, NamesAreFoundWhereTheEndsOfChildrenAreIgnored)
{
    const std::string file = Crash("orderd");
    ChildResult result = RunInChild([&] {
        signal(SIGCHLD, SIG_IGN);
        Execute(ProgramUnderTest(Tool), {file});
    });
    EXPECT_EQ(result.exitCode, 0);
    ExpectFrames(Replaced(result.out, "[^ \"]*tests/system/victim/", "tests/system/victim/"));
}

// ---- A host that refuses ----

#ifdef SYS_poll
const long Poll = SYS_poll;
#else
const long Poll = SYS_ppoll;
#endif

// What is said of a crash file when the calls of that number fail that the rule names.
ChildResult WhenFailing(FailingCalls& calls, const std::string& file)
{
    ChildResult result = calls.Run([&] {
        calls.Begin();
        Execute(ProgramUnderTest(Tool), {file});
    });
    result.out = Replaced(result.out, "[^ \"]*tests/system/victim/", "tests/system/victim/");
    return result;
}

// What is said when one of these calls fails, for each of them that lets the program start.
std::vector<ChildResult> WhenOneFails(long number, int error, const std::string& file)
{
    const int notStarted = 127;
    std::vector<ChildResult> results;
    for (long before = 0;; before++) {
        FailingCalls calls({number}, {error, before, 1});
        const ChildResult result = WhenFailing(calls, file);
        if (calls.Failed() == 0)
            return results;
        if (result.exitCode != notStarted)
            results.push_back(result);
    }
}

TEST_F(OrvCrashNames, ARefusalOfTheHostCostsNamesOnly)
{
    const std::string file = Crash("orderd");
    const std::vector<std::pair<long, int>> refusals = {
#ifndef __SANITIZE_ADDRESS__ // which needs pipes of its own
        {SYS_pipe2, EMFILE},
#endif
        {Poll, ENOMEM}};
    for (const auto& [number, error] : refusals) {
        FailingCalls calls({number}, {error});
        const ChildResult result = WhenFailing(calls, file);
        if (result.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no way to make system calls fail here";
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_GT(calls.Failed(), 0);
        EXPECT_EQ(Notes(result.out, Library), Texts({"no names: " + Library +
                                                     " is another one, and is not used: its build id is missing, not "
                                                     "ID"}));
    }
}

TEST_F(OrvCrashNames, ACrashFileThatCannotBeLookedAtIsSaidToBeSo)
{
    const std::string file = Crash("orderd");
    int times = 0;
    const std::vector<ChildResult> results = WhenOneFails(SYS_fstat, EIO, file);
    if (results.empty())
        GTEST_SKIP() << "no way to make system calls fail here";
    for (const ChildResult& result : results)
        times += result.exitCode == 1 && result.err == "orvcrash: " + file + ": Input/output error\n" ? 1 : 0;
    EXPECT_EQ(times, 1);
}

TEST_F(OrvCrashNames, AnInterruptedCallIsMadeAgain)
{
    const std::string file = Crash("orderd");
    FailingCalls waits({SYS_pread64}, {});
    if (WhenFailing(waits, file).exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make system calls fail here";
    const std::vector<ChildResult> results = WhenOneFails(SYS_pread64, EINTR, file);
    EXPECT_GE(results.size(), 2u) << "of the crash file and of the map";
    for (const ChildResult& result : results) {
        EXPECT_EQ(result.exitCode, 0) << result.err;
        ExpectFrames(result.out);
    }
    FailingCalls first({Poll}, {EINTR, 0, 1});
    ExpectFrames(WhenFailing(first, file).out);
    EXPECT_EQ(first.Failed(), 1);
}

} // namespace
