#include "Misc/cstring.h"

#include <algorithm>
#include <iostream>

#include "Misc/ZELstream.h"
#include "Misc/cstring/room.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

ZEListream& CString::ObjectRead(ZEListream& s)
{
    scanFrom(s);
    return s;
}

ZELostream& CString::ObjectWrite(ZELostream& s) const
{
    printOn(s);
    return s;
}

void CString::scanFrom(ZEListream& s)
{
    *this = "";
    unsigned short expected = 0; // what a length that does not parse leaves
    s.get(expected);
    if (expected == 0)
        return;
    char* text = zeloo::NewRoom(expected);
    if (text == nullptr)
        return;
    const int got = std::min(std::max(s.read(text, expected), 0), static_cast<int>(expected));
    text[got] = '\0';
    takeOver(text);
    if (got < expected) {
        std::cout << "Error: short read in Cstring scanFrom. " << std::endl;
        std::cout << "read: " << got << " expected: " << expected << std::endl;
        s.SetReadErrorFlag();
    }
}

void CString::printOn(ZELostream& s) const
{
    const unsigned short n = static_cast<unsigned short>(cp->len);
    if (n != cp->len) {
        std::cout << "Warning: data will be truncated in Cstring printOn. " << std::endl;
        std::cout << "writing " << n << " of " << cp->len << " bytes." << std::endl;
    }
    s.put(n);
    s.write(cp->rep, n);
}
