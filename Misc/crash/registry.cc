// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/crash/registry.h"

#include <atomic>

#include "Misc/crash/handlers.h"
#include "Misc/crash/request.h"
#include "Misc/detail/text.h"
#include "Misc/mobject.h"

using zeloo::Objects;

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

ZELOO_DEFINE_ARRAY(MonitoredObject);

short MonitoredObject::DebugLevel = 0;
long MonitoredObject::InstanceCounter = 0;
char* MonitoredObject::DumpStateFileName = nullptr;

// Plain pointers, null before any constructor runs and never destroyed: static objects of other units are registered
// before main and removed after it.
MonitoredObject* Objects::first = nullptr;
MonitoredObject* Objects::last = nullptr;
Objects::Walk* Objects::Walk::innermost = nullptr;

MonitoredObject::MonitoredObject() : ObjectTag(InstanceCounter++) { Objects::Add(this); }

MonitoredObject::MonitoredObject(const MonitoredObject&) : ObjectTag(InstanceCounter++) { Objects::Add(this); }

MonitoredObject::~MonitoredObject() { Objects::Remove(this); }

long MonitoredObject::myObjectTag() { return ObjectTag; }

void MonitoredObject::dumpOn(std::ostream& os) const { os << "not avail\n"; }

void MonitoredObject::SigTermProc(int) {}
void MonitoredObject::SigRestartProc(int) {}

void MonitoredObject::SetDumpStateFileName(const char* name)
{
    char* earlier = DumpStateFileName;
    DumpStateFileName = zeloo::NewText(name); // before the earlier one goes: a handler may read it at any time
    delete[] earlier;
}

void MonitoredObject::DumpState(std::ostream& os)
{
    if (!Objects::DumpHeading(os))
        return;
    Objects::Walk walk;
    while (MonitoredObject* object = walk.Next())
        Objects::DumpObject(object, os);
    Objects::DumpEnd(os);
}

namespace zeloo {

// Keeps the compiler from moving a store across: a handler must see them in the order in which they stand.
static void StoresInOrder() { std::atomic_signal_fence(std::memory_order_seq_cst); }

Objects::Walk::Walk() : next(first), end(MonitoredObject::InstanceCounter), outer(innermost) { innermost = this; }

MonitoredObject* Objects::Walk::Next()
{
    MonitoredObject* object = next;
    if (object == nullptr || object->ObjectTag >= end)
        return nullptr;
    next = object->NextObject;
    return object;
}

void Objects::Add(MonitoredObject* object)
{
    CollectDump();
    if (first == nullptr)
        InstallHandlers();
    NoteModules();
    object->NextObject = nullptr;
    object->PreviousObject = last;
    StoresInOrder();
    (last != nullptr ? last->NextObject : first) = object;
    StoresInOrder();
    last = object;
}

void Objects::Remove(MonitoredObject* object)
{
    CollectDump();
    for (Walk* walk = Walk::innermost; walk != nullptr; walk = walk->outer)
        if (walk->next == object)
            walk->next = object->NextObject;
    (object->PreviousObject != nullptr ? object->PreviousObject->NextObject : first) = object->NextObject;
    StoresInOrder();
    (object->NextObject != nullptr ? object->NextObject->PreviousObject : last) = object->PreviousObject;
}

void Objects::TakeOver()
{
    ForgetWalks();
    last = nullptr;
    for (MonitoredObject* object = first; object != nullptr; object = object->NextObject) {
        object->PreviousObject = last;
        last = object;
    }
}

void Objects::ForEach(void (MonitoredObject::*operation)(int), int sig)
{
    Walk walk;
    while (MonitoredObject* object = walk.Next())
        (object->*operation)(sig);
}

long Objects::TagOf(long number)
{
    const MonitoredObject* object = first;
    for (; object != nullptr && number > 0; number--)
        object = object->NextObject;
    return object != nullptr ? object->ObjectTag : -1;
}

bool Objects::DumpHeading(std::ostream& os)
{
    os << "Monitored Objects: \n";
    if (first == nullptr) {
        os << "No objects currently being monitored...\n";
        return false;
    }
    MonitoredObject* final = first;
    unsigned long number = 1;
    for (; final->NextObject != nullptr; final = final->NextObject)
        number++;
    os << "First tag: " << first->myObjectTag() << '\n';
    os << "Last tag:  " << final->myObjectTag() << '\n';
    os << "Total still resident: " << number << '\n';
    os << "*** Dump of all Monitored Objects ***\n";
    return true;
}

void Objects::DumpObject(MonitoredObject* object, std::ostream& os)
{
    const long tag = object->myObjectTag();
    os << "\n\n*** Begin dump of object tag: " << tag << '\n';
    os.flush(); // so that the dump shows where the process was when it ends here
    object->dumpOn(os);
    DumpEndOfObject(tag, os);
}

void Objects::DumpEndOfObject(long tag, std::ostream& os) { os << "\n*** End dump of object tag:   " << tag << '\n'; }

void Objects::DumpEnd(std::ostream& os) { os << "*** End Dump of all Monitored Objects ***\n"; }

} // namespace zeloo
