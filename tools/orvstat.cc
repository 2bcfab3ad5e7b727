// SPDX-License-Identifier: BSD-2-Clause
// What an operator wants to know of the servers of a host: who lives, what waits on their queues, who is blocked; whether
// one answers; and the removal of what a dead one left.
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

#include <unistd.h>

#include "Misc/proginfo.h"
#include "orvstat/clean.h"
#include "orvstat/exitcodes.h"
#include "orvstat/ping.h"
#include "orvstat/report.h"
#include "orvstat/servers.h"

using orvstat::ExitCode;

static const char Usage[] =
    "usage: orvstat [--json] [--watch [SECONDS]]\n"
    "       orvstat [--json] clean NAME\n"
    "       orvstat [--json] ping NAME [--host HOST [--service SERVICE] [--object NUMBER]]\n"
    "Shows the servers of this host with their queues, marks those that are stale and says who is blocked.\n"
    "  --json             write JSON instead of text\n"
    "  --watch [SECONDS]  show them again every so many seconds (2), until interrupted\n"
    "  clean NAME         remove the queue and the semaphore set that a dead server left; never those of a living one\n"
    "  ping NAME          ask a server for a response and an acknowledgement, for five seconds at most\n"
    "  --host HOST        ask through the relay on that host\n"
    "  --service SERVICE  the service at which the relay listens (NAME)\n"
    "  --object NUMBER    the object number by which the relay chooses the server (0)\n"
    "  --help, --version  print this, or the version\n"
    "Who is blocked is known of the processes at which the user may look: all of them for root.\n"
    "Exit codes: 0 all is well, 1 something is stale, was not removed or did not answer, 2 wrong usage,\n"
    "3 no such server, 4 no right to see, remove or ask.\n";

static const int WatchSeconds = 2;
static const int LongestWatch = 86400;

typedef std::vector<std::string> Words;

/// What the command line says.
struct Arguments {
    bool json = false;
    int watchSeconds = 0;
    Words words; // the command and what it takes, or nothing
    orvstat::Target target;
};

static ExitCode Misused(const std::string& message)
{
    std::cerr << "orvstat: " << message << "; see orvstat --help" << std::endl;
    return orvstat::WrongUsage;
}

static ExitCode ShowOnce(orvstat::Form form)
{
    const orvstat::Host host = orvstat::LookAtHost();
    orvstat::Report(host, form, time(nullptr), std::cout);
    std::cout.flush();
    return orvstat::ExitCodeOf(host);
}

// Shows them again and again: on a terminal in place, elsewhere block after block.
static ExitCode Watch(orvstat::Form form, int seconds)
{
    sigset_t ends;
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ends, signal);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    const bool inPlace = form != orvstat::Form::Json && isatty(STDOUT_FILENO);
    const struct timespec interval = {seconds, 0};
    for (bool isFirst = true;; isFirst = false) {
        const time_t now = time(nullptr);
        if (inPlace)
            std::cout << "\033[H\033[2J";
        else if (form != orvstat::Form::Json && !isFirst)
            std::cout << '\n';
        if (form != orvstat::Form::Json) {
            char text[40];
            struct tm local;
            std::strftime(text, sizeof text, "%m/%d/%Y %H:%M:%S", localtime_r(&now, &local));
            std::cout << ProgInfo::GetNodeName() << "  " << text << "\n";
        }
        const ExitCode code = ShowOnce(form);
        if (!std::cout || sigtimedwait(&ends, nullptr, &interval) > 0)
            return code;
    }
}

// Of the environment.
static const char* Setting(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

static ExitCode Show(const Arguments& arguments)
{
    const std::string noColour = Setting("NO_COLOR");
    const std::string terminal = Setting("TERM");
    const bool coloured = isatty(STDOUT_FILENO) && noColour.empty() && !terminal.empty() && terminal != "dumb";
    const orvstat::Form plain = coloured ? orvstat::Form::ColouredText : orvstat::Form::Text;
    const orvstat::Form form = arguments.json ? orvstat::Form::Json : plain;
    return arguments.watchSeconds > 0 ? Watch(form, arguments.watchSeconds) : ShowOnce(form);
}

// What did not come out as wanted is said on the standard error, unless it is for a program.
static std::ostream& StreamFor(ExitCode code) { return code == orvstat::Fine ? std::cout : std::cerr; }

static ExitCode Clean(const Arguments& arguments)
{
    const std::string& name = arguments.words[1];
    const orvstat::Cleaning done = orvstat::Clean(name);
    if (arguments.json)
        orvstat::WriteJson(name, done, std::cout);
    else
        orvstat::WriteText(name, done, StreamFor(done.code));
    return done.code;
}

static ExitCode Ping(const Arguments& arguments)
{
    orvstat::Target target = arguments.target;
    target.name = arguments.words[1];
    if (target.service.empty() && !target.host.empty())
        target.service = target.name;
    const orvstat::Ping ping = orvstat::SendPing(target);
    if (arguments.json)
        orvstat::WriteJson(target, ping, std::cout);
    else
        orvstat::WriteText(target, ping, StreamFor(ping.code));
    return ping.code;
}

// Reads a number from `least` to `most`.
static bool ReadNumber(const std::string& text, int least, int most, int* number)
{
    const char* end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, *number);
    return read.ec == std::errc() && read.ptr == end && *number >= least && *number <= most;
}

static bool IsNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Reads an option that takes a word. False when it is none, or the word is wrong.
static bool ReadOption(const std::string& option, const std::string& value, orvstat::Target& target)
{
    int object = 0;
    if (option == "--host")
        target.host = value;
    else if (option == "--service")
        target.service = value;
    else if (option != "--object" || !ReadNumber(value, SHRT_MIN, SHRT_MAX, &object))
        return false;
    target.object = static_cast<short>(option == "--object" ? object : target.object);
    return !value.empty();
}

// Reads the words of the command line. False when one is wrong.
static bool ReadArguments(const Words& words, Arguments& arguments)
{
    for (size_t i = 0; i < words.size(); i++) {
        const std::string& word = words[i];
        const bool isLast = i + 1 == words.size();
        if (word == "--json") {
            arguments.json = true;
        } else if (word == "--watch") {
            arguments.watchSeconds = WatchSeconds;
            if (!isLast && IsNumber(words[i + 1]) && !ReadNumber(words[++i], 1, LongestWatch, &arguments.watchSeconds))
                return false;
        } else if (!word.empty() && word[0] != '-') {
            arguments.words.push_back(word);
        } else if (isLast || !ReadOption(word, words[++i], arguments.target)) {
            return false;
        }
    }
    return true;
}

// Runs what the arguments ask for, if they fit each other.
static ExitCode Run(const Arguments& arguments)
{
    const Words& words = arguments.words;
    const orvstat::Target& target = arguments.target;
    const bool hasTarget = !target.host.empty() || !target.service.empty() || target.object != 0;
    if (words.empty() && hasTarget)
        return Misused("--host, --service and --object belong to ping");
    if (words.empty())
        return Show(arguments);
    if (words[0] != "clean" && words[0] != "ping")
        return Misused("unknown command " + words[0]);
    if (words.size() != 2 || arguments.watchSeconds > 0)
        return Misused(words[0] + " takes a server's name");
    if (words[0] == "clean" && hasTarget)
        return Misused("clean works on this host alone");
    if (words[0] == "clean")
        return Clean(arguments);
    if (target.host.empty() && hasTarget)
        return Misused("--service and --object go with --host");
    return Ping(arguments);
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, TOOL_VERSION);
    const Words words(argv + 1, argv + argc);
    if (words.size() == 1 && words[0] == "--help") {
        std::cout << Usage;
        return orvstat::Fine;
    }
    if (words.size() == 1 && words[0] == "--version") {
        std::cout << "orvstat " << TOOL_VERSION << std::endl;
        return orvstat::Fine;
    }
    Arguments arguments;
    if (!ReadArguments(words, arguments))
        return Misused("wrong arguments");
    return Run(arguments);
}
