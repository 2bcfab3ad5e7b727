#include "Misc/mobject.h"

#include <new>

#include "Misc/crash/handlers.h"
#include "Misc/detail/text.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

ZELOO_DEFINE_ARRAY(MonitoredObject);

short MonitoredObject::DebugLevel = 0;
long MonitoredObject::InstanceCounter = 0;
// Plain pointers, null before any constructor runs and never destroyed: static objects of other units are registered
// before main and removed after it.
MonitoredObjectSafeArray* MonitoredObject::Registry = nullptr;
char* MonitoredObject::DumpStateFileName = nullptr;

MonitoredObject::MonitoredObject() : ObjectTag(InstanceCounter++) { Register(); }

MonitoredObject::MonitoredObject(const MonitoredObject&) : ObjectTag(InstanceCounter++) { Register(); }

MonitoredObject::~MonitoredObject()
{
    const svr4::SignalsHeld held(zeloo::RequestSignals());
    if (Registry == nullptr)
        return;
    Registry->RemovePtr(this);
    if (Registry->Quantity() == 0) {
        delete Registry;
        Registry = nullptr;
    }
}

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
    os << "Monitored Objects: \n";
    if (Registry == nullptr || Registry->Quantity() == 0) {
        os << "No objects currently being monitored...\n";
        return;
    }
    os << "First tag: " << Registry->first()->myObjectTag() << '\n';
    os << "Last tag:  " << Registry->last()->myObjectTag() << '\n';
    os << "Total still resident: " << Registry->Quantity() << '\n';
    os << "*** Dump of all Monitored Objects ***\n";
    for (unsigned i = 0; Registry != nullptr && i < Registry->Quantity(); i++) {
        MonitoredObject* object = (*Registry)[static_cast<int>(i)];
        os << "\n\n*** Begin dump of object tag: " << object->myObjectTag() << '\n';
        os.flush(); // so that the dump shows where the process was when it ends here
        object->dumpOn(os);
        os << "\n*** End dump of object tag:   " << object->myObjectTag() << '\n';
    }
    os << "*** End Dump of all Monitored Objects ***\n";
}

void MonitoredObject::Register()
{
    const svr4::SignalsHeld held(zeloo::RequestSignals());
    if (Registry == nullptr) {
        Registry = new (std::nothrow) MonitoredObjectSafeArray;
        if (Registry == nullptr)
            return;
        Registry->SetPurgeMode(1);
        InstallHandlers();
    }
    Registry->AddItem(this);
    Registry->ShrinkToFit();
}

// The index of the first object with a tag above `tag`; Quantity() when there is none.
unsigned MonitoredObject::IndexBehind(long tag)
{
    unsigned low = 0, high = Registry->Quantity();
    while (low < high) {
        const unsigned middle = low + (high - low) / 2;
        if ((*Registry)[static_cast<int>(middle)]->ObjectTag <= tag)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

// Calls `operation` for every object. The operations may construct and destroy objects: each object there is at the
// beginning is called once if it is still there, and new ones are not called.
void MonitoredObject::ForEach(void (MonitoredObject::*operation)(int), int sig)
{
    const long end = InstanceCounter;
    for (long tag = -1; Registry != nullptr;) {
        MonitoredObject* object = (*Registry)[static_cast<int>(IndexBehind(tag))];
        if (object == nullptr || object->ObjectTag >= end)
            return;
        tag = object->ObjectTag;
        (object->*operation)(sig);
    }
}
