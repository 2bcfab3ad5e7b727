#include "Misc/cstring.h"

#include <algorithm>
#include <ostream>

#include "Misc/cstring/room.h"
#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: cstring.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

CStringBuff::CStringBuff(int size)
    : BuffSize(std::max(size, 1)), Buff(zeloo::NewRoom(static_cast<uint64_t>(BuffSize))), Index(0)
{
    ResetBuff();
}

CStringBuff::~CStringBuff() { delete[] Buff; }

void CStringBuff::ResetBuff()
{
    Index = 0;
    if (Buff != nullptr)
        Buff[0] = '\0';
}

CStringBuff& CStringBuff::operator=(const CString& s)
{
    ResetBuff();
    FinalString = s;
    return *this;
}

CStringBuff& CStringBuff::operator=(char c)
{
    ResetBuff();
    FinalString = CString(&c, 1);
    return *this;
}

CStringBuff& CStringBuff::operator+=(char c)
{
    if (Buff == nullptr) {
        FinalString += c;
        return *this;
    }
    if (Index == BuffSize) {
        Index = 0;
        FinalString += Buff;
    }
    Buff[Index++] = c;
    Buff[Index] = '\0';
    return *this;
}

CStringBuff& CStringBuff::operator+=(const CString& s)
{
    for (unsigned i = 0; i < s.strlen(); i++)
        *this += s[i];
    return *this;
}

CString CStringBuff::GetCString() const { return FinalString + Buff; }

void CStringBuff::dumpOn(std::ostream& os) const
{
    os << "CStringChBuff::dumOn" << std::endl; // misspelt: intended
    os << "BuffSize = " << BuffSize << std::endl;
    os << "Buff = " << zeloo::TextOrEmpty(Buff) << std::endl;
    os << "Index = " << Index << std::endl;
    os << "FinalString = " << static_cast<const char*>(FinalString) << std::endl;
}
