// SPDX-License-Identifier: BSD-2-Clause
#include "ctl.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iostream>
#include <iterator>

#include "Misc/Dates.h"
#include "Misc/Error.h"

ExitCode Complain(ExitCode code, const std::string& message)
{
    std::cerr << "faultctl: " << message << std::endl;
    return code;
}

ExitCode Misused(const std::string& message) { return Complain(WrongUsage, message + "; see faultctl --help"); }

ReconnectClient& Server::Client()
{
    if (client == nullptr) {
        client = std::make_unique<ReconnectClient>(0, name, host);
        client->SetRetryCount(patient ? 3 : 1);
        client->SetRetryWaitTime(1);
    }
    return *client;
}

ExitCode Server::Missing() const
{
    if (host.strlen() > 0)
        return Complain(NoServer, "no server: none on " + std::string(host) + ", or no relay to it");
    return Complain(NoServer, std::string("no server: ") + program +
                                  " is not running here, and there is no relay to another host");
}

ExitCode ComplainOf(const char* event, short code)
{
    const bool gone = code >= ErrorReporter::SERVER_GONE && code <= ErrorReporter::IPC_RECV_PROCESS_GONE;
    const std::string message = ErrorReporter::GetErrorType(code);
    return Complain(gone ? NoServer : Failed, std::string(event) + ": " + message + " (" + std::to_string(code) + ")");
}

ExitCode Ask(Server& server, short event, const Buffer& request, Buffer& answer)
{
    ReconnectClient& client = server.Client();
    const bool wasThere = client.ServerConnected();
    const short code = client.SendEventWithResponse(event, answer, event, request, static_cast<long>(request.Size()));
    if (code == 0)
        return Done;
    if (!wasThere && !client.ServerConnected())
        return server.Missing();
    return ComplainOf(server.eventName(event), code);
}

bool ReadNumber(const std::string& text, long& number)
{
    const char* end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end;
}

bool ReadId(const Arguments& arguments, size_t first, FaultId& id)
{
    long number = 0;
    if (arguments[first].empty() || !ReadNumber(arguments[first + 1], number))
        return false;
    id = FaultId(number, arguments[first].c_str());
    return IsFaultId(id);
}

ExitCode BadId()
{
    return Misused("NODE must be 1 to " + std::to_string(FaultNodeLimit) +
                   " visible characters without / and :, NUMBER from 0 to 2147483647");
}

ExitCode PackCommand(const Arguments& arguments, size_t first, Buffer& request)
{
    FaultCommand command;
    if (!ReadId(arguments, first, command.id))
        return BadId();
    const std::string& text = arguments[first + 2];
    if (text.empty() || text.size() > FaultTextLimit)
        return Misused("COMMAND must be 1 to " + std::to_string(FaultTextLimit) + " characters");
    command.command = text.c_str();
    Pack(command, request);
    return Done;
}

void WriteBytes(const Buffer& bytes)
{
    std::cout.write(static_cast<const char*>(static_cast<const void*>(bytes)), bytes.Size());
}

void PrintLine(const FaultSummary& fault)
{
    std::cout << fault.hdr.myId << "\t" << Dates::GetDateTime(fault.raised) << "\t" << fault.state << "\t"
              << fault.attached << "\t" << fault.text << "\n";
}

ExitCode ShowFault(FaultRecord& fault, const std::string& file)
{
    const FaultSummary& summary = fault.summary;
    std::cout << "Fault:    " << summary.hdr.myId << "\n"
              << "Raised:   " << Dates::GetDateTime(summary.raised) << "\n"
              << "State:    " << summary.state << "\n"
              << "Attached: " << summary.attached << " bytes\n"
              << "Text:     " << summary.text << "\n";
    for (unsigned i = 0; i < summary.options.Quantity(); i++) {
        const Option& option = *summary.options[static_cast<int>(i)];
        std::cout << "Option:   " << option.Name << "=" << option.Value << "\n";
    }
    if (!file.empty() && fault.attachment.SaveBufferToFile(file.c_str(), 0) != 0)
        return Complain(Failed, "cannot write " + file);
    return Done;
}

ExitCode ShowResult(const CommandResult& result, ExitCode code)
{
    WriteBytes(result.output);
    if (code == Done && result.exitStatus != 0)
        return Complain(Failed, "the command ended with status " + std::to_string(result.exitStatus));
    return code;
}

ExitCode ShowStatus(Server& server, short event)
{
    Buffer answer;
    const ExitCode code = Ask(server, event, Buffer(), answer);
    WriteBytes(answer);
    return code;
}

ExitCode EndServer(Server& server, short event)
{
    Buffer answer;
    ReconnectClient& client = server.Client();
    const bool wasThere = client.ServerConnected();
    const short code = client.SendEventWithResponse(event, answer, event, nullptr, 0);
    if (code == 0)
        return Done;
    if (!wasThere && !client.ServerConnected())
        return server.Missing();
    if (code == ErrorReporter::SERVER_GONE) // it may go before the answer is read
        return Done;
    return ComplainOf(server.eventName(event), code);
}

// Sorts what follows the command. False when it is not what the command takes.
static bool ReadArguments(const Command& command, const Words& words, Arguments& arguments)
{
    if (words.size() < 1 + command.count)
        return false;
    auto rest = words.begin() + 1 + static_cast<std::ptrdiff_t>(command.count);
    for (size_t more = command.more; more > 0 && rest != words.end(); more--)
        ++rest;
    arguments.words.assign(words.begin() + 1, rest);
    for (auto word = rest; word != words.end(); word += 2) {
        if (word + 1 == words.end())
            return false;
        const bool isOnce = std::any_of(std::begin(command.once), std::end(command.once),
                                        [&](const char* option) { return option != nullptr && *word == option; });
        if (isOnce && arguments.once[*word].empty())
            arguments.once[*word] = word[1];
        else if (command.hasOptions && *word == "--option")
            arguments.options.push_back(word[1]);
        else
            return false;
    }
    return true;
}

ExitCode Execute(Server& server, const std::vector<Command>& commands, const Words& words)
{
    if (words.empty())
        return Misused("no command");
    for (const Command& command : commands) {
        if (words[0] != command.name)
            continue;
        Arguments arguments;
        if (!ReadArguments(command, words, arguments))
            return Misused(std::string(command.name) + " takes " + command.takes);
        return command.run(server, arguments);
    }
    return Misused("unknown command " + words[0]);
}
