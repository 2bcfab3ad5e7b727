// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/FaultId.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Misc/Error/report.h"
#include "Misc/FaultId/index.h"
#include "Misc/detail/filestream.h"
#include "Misc/detail/text.h"
#include "Misc/nfstream.h"
#include "Misc/proginfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: FaultId.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const char OutOfStore[] = "orvlaf: out of free store";
static const int IndexQuantity = 32; // below it a list is searched without an index

FaultId::FaultId() : myId(0) {}

FaultId::FaultId(long fault_id, const char* Nodename)
    : myId(fault_id), myNodename(*zeloo::TextOrEmpty(Nodename) != '\0' ? Nodename : ProgInfo::GetNodeName())
{
    concatNodenameId(myId, myNodename);
}

FaultId& FaultId::operator=(const char* NodenameIdStr)
{
    ConstFromStr(NodenameIdStr);
    return *this;
}

void FaultId::ConstFromStr(const char* NodenameIdStr)
{
    const char* text = zeloo::TextOrEmpty(NodenameIdStr);
    const char* separator = std::strchr(text, '/');
    if (separator == nullptr)
        separator = std::strchr(text, ':');
    myId = separator != nullptr ? std::strtol(separator + 1, nullptr, 10) : 0;
    // Last, since the text may be that of the node name.
    myNodename = separator != nullptr ? CString(text, static_cast<unsigned>(separator - text)) : CString(text);
    concatNodenameId(myId, myNodename);
}

void FaultId::concatNodenameId(long fault_id, const char* Nodename)
{
    char number[24]; // a separator, a sign, 19 digits
    std::snprintf(number, sizeof number, "/%08ld", fault_id);
    CString text(Nodename);
    text += number;
    CString::operator=(text);
}

bool FaultId::operator==(const FaultId& f) const
{
    // The number first: it is the one that usually differs.
    return myId == f.myId && CString::operator==(static_cast<const CString&>(f)) && myNodename == f.myNodename;
}

void FaultId::printOn(ZELostream& s) const
{
    s.put(myId);
    myNodename.printOn(s);
    CString::printOn(s);
}

void FaultId::scanFrom(ZEListream& s) { scanWhole(s); }

// Reads the three parts; true when the stream held all of them. The state of an istream tells, and to ask it where it
// stands would be a system call. A Buffer does not say: a number that is not there leaves the position where it was, and
// a text may take the spare byte beyond the end.
bool FaultId::scanWhole(ZEListream& s)
{
    const bool isBuffer = s.readsBuffer();
    s.get(myId);
    const unsigned atNodename = isBuffer ? s.tellg() : 0;
    myNodename.scanFrom(s);
    const unsigned atText = isBuffer ? s.tellg() : 0;
    CString::scanFrom(s);
    if (!s.good() || s.eof())
        return false;
    const unsigned least = 2; // bytes of a number, in every encoding
    // Where there is no whole number to begin with, there is none for the length of the node name either.
    return !isBuffer ||
           (atText - atNodename >= least + myNodename.strlen() && s.tellg() - atText >= least + CString::strlen());
}

void FaultId::dumpOn(std::ostream& os) const
{
    os << "FaultId =  " << myId << std::endl;
    os << "NodeName = " << static_cast<const char*>(myNodename) << std::endl;
}

ZELOO_DEFINE_ARRAY(FaultId);

// The number alone: a program can write to the texts of an element, which it shares, but not to its number.
static uint32_t NumberHash(const FaultId& f)
{
    return static_cast<uint32_t>(static_cast<uint64_t>(f.GetId()) * 0x9E3779B97F4A7C15U >> 32);
}

// All three parts, for as long as nobody else has seen an element.
static uint32_t WholeHash(const FaultId& f)
{
    uint32_t hash = NumberHash(f);
    for (const char* text : {static_cast<const char*>(f), static_cast<const char*>(f.GetNodeName())})
        for (; *text != '\0'; text++)
            hash = (hash ^ static_cast<unsigned char>(*text)) * 16777619U;
    return hash;
}

FaultIdList::FaultIdList(const char* filename) : MyFileName(filename), MyIndex(0), FaultIds(nullptr), index(nullptr)
{
    if (MyFileName.strlen() == 0 && *zeloo::TextOrEmpty(filename) != '\0')
        _ReportError(WARNING, OUT_OF_MEMORY, filename, ZELOO_HERE);
    makeArray();
}

FaultIdList::~FaultIdList()
{
    dropIndex();
    delete FaultIds;
}

short FaultIdList::MyQuantity() const { return FaultIds != nullptr ? static_cast<short>(FaultIds->Quantity()) : -1; }

const FaultId* FaultIdList::GetNext()
{
    if (MyIndex >= MyQuantity())
        return nullptr;
    return (*FaultIds)[MyIndex++];
}

void FaultIdList::AddFaultId(const FaultId& f)
{
    if (FaultIds == nullptr)
        makeArray();
    if (FaultIds == nullptr || has(f))
        return;
    if (FaultIds->Quantity() == SHRT_MAX) {
        _ReportError(WARNING, TOO_MANY_FAULTS, f, ZELOO_HERE);
        return;
    }
    FaultId* copy = new (std::nothrow) FaultId(f);
    if (copy == nullptr) {
        _ReportError(WARNING, OUT_OF_MEMORY, OutOfStore, ZELOO_HERE);
        return;
    }
    FaultIds->AddItem(copy);
    if (index != nullptr && !index->Add(copy))
        dropIndex();
}

void FaultIdList::DeleteOne(const FaultId& f)
{
    const int at = find(f);
    if (at < 0)
        return;
    if (index != nullptr)
        index->Remove(element(at));
    FaultIds->RemoveAt(static_cast<unsigned>(at));
    if (at < MyIndex)
        MyIndex--;
}

void FaultIdList::printOn(ZELostream& s) const
{
    const short quantity = MyQuantity();
    s.put(quantity);
    for (int i = 0; i < quantity; i++)
        element(i)->printOn(s);
}

void FaultIdList::scanFrom(ZEListream& s)
{
    dropIndex();
    if (FaultIds != nullptr)
        FaultIds->DeleteAllItems();
    short quantity = 0; // what a quantity that does not parse leaves
    s.get(quantity);
    if (quantity >= IndexQuantity)
        index = new (std::nothrow) zeloo::FaultIndex(WholeHash);
    for (int i = 0; i < quantity && s.good(); i++) {
        FaultId f;
        if (f.scanWhole(s))
            AddFaultId(f);
        else
            s.SetReadErrorFlag();
    }
    dropIndex(); // from here on a program can see the elements
}

void FaultIdList::Load()
{
    if (MyFileName.strlen() == 0)
        return;
    errno = 0; // of a file that is merely short there is no error to report
    zeloo::InputFile file(MyFileName);
    if (!file.is_open()) { // the host opens a directory, only to read it is impossible
        _ReportError(WARNING, errno == EISDIR ? READING_FROM_FILE : OPENING_FILE, MyFileName, ZELOO_HERE);
        return;
    }
    infstream s(file);
    scanFrom(s);
    if (!s.good())
        _ReportError(WARNING, READING_FROM_FILE, MyFileName, ZELOO_HERE);
}

void FaultIdList::Save() const
{
    if (MyFileName.strlen() == 0)
        return;
    errno = 0;
    zeloo::OutputFile file(MyFileName, zeloo::OutputFile::Truncate);
    if (!file.is_open()) {
        _ReportError(WARNING, OPENING_FILE, MyFileName, ZELOO_HERE);
        return;
    }
    onfstream s(file);
    printOn(s);
    s.flush();
    file.close(); // which tells what a file system can tell only then
    if (!s.good())
        _ReportError(WARNING, WRITING_TO_FILE, MyFileName, ZELOO_HERE);
}

void FaultIdList::dumpOn(std::ostream& os) const
{
    if (FaultIds == nullptr)
        return;
    os << "FaultIdList: Quantity = " << MyQuantity() << "; CurrIndex = " << MyIndex << std::endl;
    for (int i = 0; i < MyQuantity(); i++)
        os << static_cast<const char*>(*element(i)) << std::endl;
}

void FaultIdList::makeArray()
{
    FaultIds = new (std::nothrow) FaultIdSafeArray;
    if (FaultIds == nullptr)
        _ReportError(WARNING, OUT_OF_MEMORY, OutOfStore, ZELOO_HERE);
}

// Whether there is an index of the elements, once it has been made where it is worth it and there is memory.
bool FaultIdList::makeIndex()
{
    const int quantity = MyQuantity();
    if (index != nullptr || quantity < IndexQuantity)
        return index != nullptr;
    index = new (std::nothrow) zeloo::FaultIndex(NumberHash);
    for (int i = 0; i < quantity && index != nullptr; i++)
        if (!index->Add(element(i)))
            dropIndex();
    return index != nullptr;
}

void FaultIdList::dropIndex()
{
    delete index;
    index = nullptr;
}

const FaultId* FaultIdList::element(int i) const { return (*FaultIds)[i]; }

int FaultIdList::linearFind(const FaultId& f) const
{
    const int quantity = MyQuantity();
    for (int i = 0; i < quantity; i++)
        if (*element(i) == f)
            return i;
    return -1;
}

// The index of the first element equal to `f`, or -1.
int FaultIdList::find(const FaultId& f)
{
    if (!makeIndex())
        return linearFind(f);
    unsigned count = 0;
    const FaultId* found = index->Find(f, count);
    if (count > 1) // only where a program has written to a text
        return linearFind(f);
    int i = count == 0 ? -1 : 0;
    while (i >= 0 && element(i) != found)
        i++;
    return i;
}

bool FaultIdList::has(const FaultId& f) { return makeIndex() ? index->Has(f) : linearFind(f) >= 0; }
