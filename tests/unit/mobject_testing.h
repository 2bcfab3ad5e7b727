// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the monitored objects share: objects that do as a test says, and the texts of their dumps.
#ifndef TESTS_UNIT_MOBJECT_TESTING_H
#define TESTS_UNIT_MOBJECT_TESTING_H

#include <functional>
#include <iostream>
#include <sstream>
#include <string>

#include <unistd.h>

#include "Misc/mobject.h"

// The faults of these tests are the library's to handle, not a sanitizer's.
extern "C" [[gnu::used]] inline const char* __asan_default_options()
{
    return "handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:use_sigaltstack=0:"
           "detect_stack_use_after_return=0";
}

namespace mobject_testing {

/// An object whose operations are given as functions, for one test each.
class Probe : public MonitoredObject {
public:
    explicit Probe(const std::string& name_p) : name(name_p) {}
    void dumpOn(std::ostream& os) const override
    {
        if (onDump)
            onDump(os);
        else
            os << "probe " << name << "\n";
    }
    void SigTermProc(int sig) override
    {
        if (onTerm)
            onTerm(sig);
        else if (talks)
            std::cerr << "SigTermProc(" << sig << ") of " << name << "\n";
    }
    void SigRestartProc(int sig) override
    {
        if (onRestart)
            onRestart(sig);
        else if (talks)
            std::cerr << "SigRestartProc(" << sig << ") of " << name << "\n";
    }

    std::string name;
    bool talks = true;
    std::function<void(std::ostream&)> onDump;
    std::function<void(int)> onTerm;
    std::function<void(int)> onRestart;
};

inline std::string DumpedState()
{
    std::ostringstream os;
    MonitoredObject::DumpState(os);
    return os.str();
}

inline std::string ObjectDump(long tag, const std::string& text)
{
    const std::string number = std::to_string(tag);
    return "\n\n*** Begin dump of object tag: " + number + "\n" + text + "\n*** End dump of object tag:   " + number +
           "\n";
}

inline std::string StateDump(long first, long last, long resident, const std::string& objects)
{
    return "Monitored Objects: \nFirst tag: " + std::to_string(first) + "\nLast tag:  " + std::to_string(last) +
           "\nTotal still resident: " + std::to_string(resident) + "\n*** Dump of all Monitored Objects ***\n" +
           objects + "*** End Dump of all Monitored Objects ***\n";
}

/// In a child: ends it with `code` unless `condition` holds.
inline void Expect(bool condition, int code)
{
    if (!condition)
        _exit(code);
}

} // namespace mobject_testing

#endif
