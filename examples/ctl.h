// SPDX-License-Identifier: BSD-2-Clause
// What the commands of faultctl share.
#ifndef EXAMPLES_CTL_H
#define EXAMPLES_CTL_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Misc/ipcobject.h"

#include "fault.h"

enum ExitCode { Done = 0, Failed = 1, WrongUsage = 2, NoServer = 3 };

typedef std::vector<std::string> Words;

/// What follows the command.
struct Arguments {
    Words words; // as many as the command takes
    std::map<std::string, std::string> once;
    Words options; // "NAME=VALUE"

    const std::string& operator[](size_t i) const { return words[i]; }
    // What was given behind an option that may be given once; empty when it was not.
    std::string Given(const char* option) const
    {
        const auto at = once.find(option);
        return at != once.end() ? at->second : "";
    }
};

/// The server. It is connected to when the first command needs it, and again when it was started again.
class Server {
public:
    const char* name = FaultServerName;
    const char* program = "faultd";
    const char* (*eventName)(short event) = FaultEventName;
    CString host;         // empty: wherever it is
    bool patient = false; // waits a little for a server that is being started again

    ReconnectClient& Client();
    ExitCode Missing() const;

private:
    std::unique_ptr<ReconnectClient> client;
};

struct Command {
    const char* name;
    const char* takes;
    size_t count;        // of its words
    const char* once[2]; // options that may be given, once, with a value, or null
    bool hasOptions;     // --option may be given, several times
    ExitCode (*run)(Server& server, const Arguments& arguments);
    size_t more = 0; // words that may follow those
};

/// Runs the command in the first of the words, which is one of `commands`.
ExitCode Execute(Server& server, const std::vector<Command>& commands, const Words& words);

/// Says on standard error what went wrong. Returns `code`.
ExitCode Complain(ExitCode code, const std::string& message);
ExitCode Misused(const std::string& message);

/// Sends `event` to the server and waits for its answer. Says on standard error what went wrong, if anything did; the
/// answer's data may be of use even then.
ExitCode Ask(Server& server, short event, const Buffer& request, Buffer& answer);
/// Says which event failed with `code`.
ExitCode ComplainOf(const char* event, short code);

/// Reads an object that was asked for with the result `code`, and which may come with a failure too.
template <class Object>
ExitCode ReadAnswer(ExitCode code, Buffer& answer, Object& object)
{
    if (answer.Size() == 0 && code != Done)
        return code;
    return Unpack(answer, object) ? code : Complain(Failed, "the server's answer cannot be read");
}

template <class Object>
ExitCode AskFor(Server& server, short event, const Buffer& request, Object& object)
{
    Buffer answer;
    const ExitCode code = Ask(server, event, request, answer);
    return ReadAnswer(code, answer, object);
}

bool ReadNumber(const std::string& text, long& number);
/// Reads NODE and NUMBER, two arguments from `first` on.
bool ReadId(const Arguments& arguments, size_t first, FaultId& id);
ExitCode BadId();
/// Makes the request of a command for a fault: NODE, NUMBER and COMMAND, from `first` on.
ExitCode PackCommand(const Arguments& arguments, size_t first, Buffer& request);

void WriteBytes(const Buffer& bytes);
/// The time, the state, the attached bytes and the text of a fault, behind its id, between tabs.
void PrintLine(const FaultSummary& fault);
/// Shows a fault, and saves its attachment unless `file` is empty.
ExitCode ShowFault(FaultRecord& fault, const std::string& file);
/// Shows the result of a command, which was asked for with the result `code`.
ExitCode ShowResult(const CommandResult& result, ExitCode code);

// What any server is asked.
ExitCode ShowStatus(Server& server, short event);
ExitCode EndServer(Server& server, short event);

#endif
