#include "Misc/FileList.h"

#include <new>

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/detail/text.h"
#include "svr4/gmatch.h"

using zeloo::TextOrEmpty;

[[maybe_unused]] static const char* ModuleId() { return "$Id: FileList.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int OpenDirectories = 8;

// The list that a walk fills: the walk hands no argument to its callback. Null while there is no walk.
static FileList* listToFill = nullptr;

static int AddWalked(const char* path, const struct stat* status, int type, struct FTW*)
{
    if (listToFill == nullptr)
        return 1;
    if (type == FTW_F && S_ISREG(status->st_mode))
        listToFill->AddFileName(path);
    return 0;
}

FileList::FileList(const char* rootPath, const char* shellPattern)
    : pattern(TextOrEmpty(shellPattern)), patternFlag(pattern.strlen() > 0)
{
    listToFill = this;
    nftw(TextOrEmpty(rootPath), AddWalked, OpenDirectories, FTW_PHYS);
    listToFill = nullptr;
}

FileList::~FileList() {}

short FileList::FindFile(const char* name) const
{
    const CString key(TextOrEmpty(name));
    return files.lfind(&key, CString::compare) != nullptr;
}

void FileList::AddFileName(const char* name)
{
    if (patternFlag && !svr4::gmatch(name, pattern))
        return;
    if (CString* copy = new (std::nothrow) CString(name))
        files.AddItem(copy);
}

void FileList::sort() { files.qsort(CString::compare); }

void FileList::RemoveAll()
{
    for (unsigned i = 0; i < files.Quantity(); i++)
        unlink(*files[static_cast<int>(i)]);
}

void FileList::dumpOn(std::ostream& os) const
{
    os << "FileList::dumpOn()\n";
    for (unsigned i = 0; i < files.Quantity(); i++)
        os << static_cast<const char*>(*files[static_cast<int>(i)]) << '\n';
}
