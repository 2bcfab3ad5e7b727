// SPDX-License-Identifier: BSD-2-Clause
#include "case.h"

#include <csignal>
#include <cstring>

namespace orvcrash {

namespace {

struct SignalOfName {
    long number;
    const char* name;
};

const SignalOfName Signals[] = {{SIGABRT, "SIGABRT"}, {SIGILL, "SIGILL"}, {SIGBUS, "SIGBUS"},   {SIGSEGV, "SIGSEGV"},
                                {SIGSYS, "SIGSYS"},   {SIGFPE, "SIGFPE"}, {SIGTRAP, "SIGTRAP"}, {SIGUSR2, "SIGUSR2"},
#ifdef SIGEMT
                                {SIGEMT, "SIGEMT"}
#endif
};

} // namespace

std::string SignalName(long signal)
{
    for (const SignalOfName& known : Signals)
        if (known.number == signal)
            return known.name;
    return "signal " + std::to_string(signal);
}

std::string SignalText(long signal)
{
    for (const SignalOfName& known : Signals)
        if (known.number == signal)
            return strsignal(static_cast<int>(signal));
    return "";
}

// What stands behind a call may belong to the next function or line: a return address less 1 is within the call.
static uint64_t CallOf(const Step& step, size_t number)
{
    return number == 0 || step.address == 0 ? step.address : step.address - 1;
}

void FindNames(Case& whole, const std::string& root)
{
    const Report& report = whole.report;
    uint64_t address = 0;
    const bool isKnown = report.Register("EIP", &address);
    if (isKnown)
        whole.steps.push_back({address, std::nullopt, {}});
    for (const Frame& frame : report.frames)
        whole.steps.push_back({frame.returnAddress, frame.address, {}});

    const size_t first = isKnown ? 0 : 1; // how the first step is counted
    std::vector<uint64_t> addresses;
    for (size_t i = 0; i < whole.steps.size(); i++)
        addresses.push_back(CallOf(whole.steps[i], i + first));
    Names names(whole.block.modules, root);
    names.Find(addresses);
    for (size_t i = 0; i < whole.steps.size(); i++) {
        Step& step = whole.steps[i];
        step.name = names.Of(addresses[i]);
        step.name.offset += step.address - addresses[i];
    }
    for (size_t i = 0; i < whole.block.modules.size(); i++)
        whole.sources.push_back(names.SourceOf(i));
    if (whole.mapProblem.empty())
        whole.mapProblem = names.Problem();
}

} // namespace orvcrash
