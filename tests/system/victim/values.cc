// SPDX-License-Identifier: BSD-2-Clause
// A program that stops with values for a debugger to show.
#include <csignal>
#include <cstring>
#include <string>

#include "Misc/CstrArray.h"
#include "Misc/FaultId.h"
#include "Misc/Hierarc.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/ularray.h"

extern "C" [[gnu::noinline]] void StopHere() {}

static void Show()
{
    const CString text("a \"text\"");
    const CString empty;
    const CString& reference = text;
    CString longText(std::string(500, 'x').c_str());
    Buffer buffer(4);
    buffer.PutDataAt(0, "a\0b\xff", 4);
    const Buffer nothing;
    CStringSafeArray strings;
    strings.AddItem(new CString("one"));
    strings.AddItem(new FaultId(7, "beta"));
    CStringSafeArray none;
    FaultIdSafeArray faults;
    faults.AddItem(new FaultId(42, "alpha"));
    const FaultId fault(42, "alpha");
    const HierarchicNum number("1.2.10");
    const HierarchicNum invalid("1.x");
    ulongArray cells(3);
    for (unsigned i = 0; i < 3; i++)
        cells[i] = i * 10;
    alignas(CString) unsigned char room[sizeof(CString)];
    memset(room, 0x55, sizeof room);
    const auto* const damaged = reinterpret_cast<const CString*>(room);
    alignas(CStringSafeArray) unsigned char arrayRoom[sizeof(CStringSafeArray)];
    memset(arrayRoom, 0, sizeof arrayRoom);
    const auto* const unmade = reinterpret_cast<const CStringSafeArray*>(arrayRoom);
    StopHere();
    (void)empty, (void)reference, (void)damaged, (void)unmade;
}

int main()
{
    Show();
    return 0;
}
