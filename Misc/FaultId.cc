#include "Misc/FaultId.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Misc/Error/report.h"
#include "Misc/detail/filestream.h"
#include "Misc/detail/text.h"
#include "Misc/nfstream.h"
#include "Misc/proginfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: FaultId.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const char OutOfStore[] = "orvlaf: out of free store";

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

// Whether a reader that stood at `before` has moved by at least `n` bytes; true where the stream cannot tell.
static bool HasMoved(unsigned before, unsigned after, unsigned n) { return before == UINT_MAX || after - before >= n; }

// Reads the three parts; true when the stream held all of them. A Buffer's stream does not say so by itself: a number
// that is not there leaves it where it was, and a text may take the spare byte beyond the end.
bool FaultId::scanWhole(ZEListream& s)
{
    s.get(myId);
    const unsigned atNodename = s.tellg();
    myNodename.scanFrom(s);
    const unsigned atText = s.tellg();
    CString::scanFrom(s);
    const unsigned atEnd = s.tellg();
    const unsigned least = 2; // bytes of a number, in every encoding
    // Where there is no whole number to begin with, there is none for the length of the node name either.
    return s.good() && !s.eof() && HasMoved(atNodename, atText, least + myNodename.strlen()) &&
           HasMoved(atText, atEnd, least + strlen());
}

void FaultId::dumpOn(std::ostream& os) const
{
    os << "FaultId =  " << myId << std::endl;
    os << "NodeName = " << static_cast<const char*>(myNodename) << std::endl;
}

ZELOO_DEFINE_ARRAY(FaultId);

FaultIdList::FaultIdList(const char* filename) : MyFileName(filename), MyIndex(0), FaultIds(nullptr)
{
    if (MyFileName.strlen() == 0 && *zeloo::TextOrEmpty(filename) != '\0')
        _ReportError(WARNING, OUT_OF_MEMORY, filename, ZELOO_HERE);
    makeArray();
}

FaultIdList::~FaultIdList() { delete FaultIds; }

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
    if (FaultIds == nullptr || find(f) >= 0)
        return;
    if (FaultIds->Quantity() == SHRT_MAX) {
        _ReportError(WARNING, TOO_MANY_FAULTS, f, ZELOO_HERE);
        return;
    }
    if (FaultId* copy = new (std::nothrow) FaultId(f))
        FaultIds->AddItem(copy);
    else
        _ReportError(WARNING, OUT_OF_MEMORY, OutOfStore, ZELOO_HERE);
}

void FaultIdList::DeleteOne(const FaultId& f)
{
    const int at = find(f);
    if (at < 0)
        return;
    FaultIds->RemoveAt(static_cast<unsigned>(at));
    if (at < MyIndex)
        MyIndex--;
}

void FaultIdList::printOn(ZELostream& s) const
{
    const short quantity = MyQuantity();
    s.put(quantity);
    for (int i = 0; i < quantity; i++)
        (*FaultIds)[i]->printOn(s);
}

void FaultIdList::scanFrom(ZEListream& s)
{
    if (FaultIds != nullptr)
        FaultIds->DeleteAllItems();
    short quantity = 0; // what a quantity that does not parse leaves
    s.get(quantity);
    for (int i = 0; i < quantity && s.good(); i++) {
        FaultId f;
        if (f.scanWhole(s))
            AddFaultId(f);
        else
            s.SetReadErrorFlag();
    }
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
        os << static_cast<const char*>(*(*FaultIds)[i]) << std::endl;
}

void FaultIdList::makeArray()
{
    FaultIds = new (std::nothrow) FaultIdSafeArray;
    if (FaultIds == nullptr)
        _ReportError(WARNING, OUT_OF_MEMORY, OutOfStore, ZELOO_HERE);
}

// The index of the first element equal to `f`, or -1.
int FaultIdList::find(const FaultId& f) const
{
    const int quantity = MyQuantity();
    for (int i = 0; i < quantity; i++)
        if (*(*FaultIds)[i] == f)
            return i;
    return -1;
}
