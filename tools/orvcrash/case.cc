// SPDX-License-Identifier: BSD-2-Clause
#include "case.h"

#include <algorithm>
#include <csignal>
#include <cstring>

#include "text.h"

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

static bool IsInModule(const std::vector<Module>& modules, uint64_t address)
{
    return std::any_of(modules.begin(), modules.end(),
                       [&](const Module& module) { return module.low <= address && address < module.high; });
}

// Where a call through a pointer that leads nowhere came from: nothing of what was called has run, so that the address to
// return to is on top of the stack. The stack is written in words of 32 bits, four a row, from a multiple of 16 on.
static bool FindCaller(const Report& report, const std::vector<Module>& modules, uint64_t* caller)
{
    uint64_t top, start, words[4];
    std::string_view address, row = report.stackRows.empty() ? std::string_view() : report.stackRows[0];
    if (!report.Register("UESP", &top) || !TakeUntil(row, ": ", &address) || !ReadHex(address, &start))
        return false;
    for (uint64_t& word : words)
        if (!TakeUntil(row, " ", &address) || !ReadHex(address, &word))
            return false;
    const bool isLong = top > UINT32_MAX;
    if (top < start || top - start > (isLong ? 8 : 12) || top % (isLong ? 8 : 4) != 0)
        return false;
    const uint64_t* const at = words + (top - start) / 4;
    *caller = isLong ? at[1] << 32 | at[0] : at[0];
    if (isLong && !IsInModule(modules, *caller))
        *caller = at[0] << 32 | at[1]; // of a processor that has the upper half first
    return IsInModule(modules, *caller);
}

void FindNames(Case& whole, const std::string& root)
{
    const Report& report = whole.report;
    uint64_t address = 0;
    const bool isKnown = report.Register("EIP", &address);
    if (isKnown)
        whole.steps.push_back({address, std::nullopt, {}});
    uint64_t caller;
    if (isKnown && !IsInModule(whole.block.modules, address) && FindCaller(report, whole.block.modules, &caller))
        whole.steps.push_back({caller, std::nullopt, {}});
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
