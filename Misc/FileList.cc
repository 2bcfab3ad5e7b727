// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/FileList.h"

#include <cerrno>
#include <memory>
#include <new>

#include <sys/stat.h>
#include <unistd.h>

#include "Misc/Error/report.h"
#include "Misc/detail/limits.h"
#include "Misc/detail/text.h"
#include "svr4/gmatch.h"
#include "svr4/nftw.h"

using zeloo::TextOrEmpty;

[[maybe_unused]] static const char* ModuleId() { return "$Id: FileList.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int OpenDirectories = 8;

// The list that a walk fills: the walk hands no argument to its callback. Null while there is no walk.
static FileList* listToFill = nullptr;
// Of that walk: whether it has come to anything, and whether the list had no room for all of it.
static bool hasBegun;
static bool hasMore;

static int AddWalked(const char* path, const struct stat* status, int type, struct FTW*)
{
    if (listToFill == nullptr)
        return 1;
    hasBegun = true;
    if (type == FTW_F && S_ISREG(status->st_mode))
        listToFill->AddFileName(path);
    return hasMore;
}

FileList::FileList(const char* rootPath, const char* shellPattern)
    : pattern(TextOrEmpty(shellPattern)), patternFlag(*TextOrEmpty(shellPattern) != '\0')
{
    const char* root = TextOrEmpty(rootPath);
    hasBegun = hasMore = false;
    listToFill = this;
    const int result = svr4::nftw(root, AddWalked, OpenDirectories, FTW_PHYS);
    listToFill = nullptr;
    if (hasMore)
        zeloo::Report(ErrorReporter::WARNING, ErrorReporter::OTHER, 0, ZELOO_HERE,
                      "There are more files below %s than the %u in the list.", root, files.Quantity());
    else if (result < 0 && hasBegun)
        zeloo::Report(ErrorReporter::WARNING, ErrorReporter::OTHER, errno, ZELOO_HERE,
                      "There are more files below %s than the %u that could be listed.", root, files.Quantity());
}

FileList::~FileList() {}

short FileList::FindFile(const char* name) const
{
    const CString key(TextOrEmpty(name));
    return files.lfind(&key, CString::compare) != nullptr;
}

void FileList::AddFileName(const char* name)
{
    name = TextOrEmpty(name);
    const bool isLost =
        patternFlag && pattern.strlen() == 0; // there was no memory for it: nothing tells what it matches
    if (patternFlag && !isLost && !svr4::gmatch(name, pattern))
        return;
    std::unique_ptr<CString> copy;
    if (files.Quantity() < zeloo::MostElements && !isLost)
        copy.reset(new (std::nothrow) CString(name));
    if (copy != nullptr && *copy == name) // without memory a string is empty
        files.AddItem(copy.release());
    else if (listToFill == this)
        hasMore = true; // which is reported once
    else
        zeloo::Report(ErrorReporter::WARNING, ErrorReporter::OTHER, 0, ZELOO_HERE, "No room in the list for %s.", name);
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
