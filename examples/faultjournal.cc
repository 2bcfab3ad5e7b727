// SPDX-License-Identifier: BSD-2-Clause
#include "faultjournal.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include <dirent.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/proginfo.h"

#include "durablefile.h"

static const char* ModuleId() { return "$Id: faultjournal.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const std::size_t Digits = 20;              // of a number in a file's name
static const std::size_t LargestName = 200;        // characters of the name of a journal
static const std::size_t LargestChange = 32 << 20; // bytes: a queue carries some 35 MB
static const std::size_t LargestAnswer = 4 << 20;  // bytes, unless its first change is larger
static const std::size_t MostInAnswer = 1000;      // changes

FaultJournal::FaultJournal(const char* directory)
    : directory(directory), nameFile(this->directory + "/name"), stepFile(this->directory + "/step"), counter(0),
      hasStep(false), isDamaged(false), isTaking(false)
{
}

short FaultJournal::Load()
{
    std::set<long> numbers;
    short status = Open(numbers);
    if (status == NO_ERRORS)
        status = ReadName();
    if (status == NO_ERRORS)
        status = ReadStep();
    if (status == NO_ERRORS)
        status = ReadChanges(numbers);
    isTaking = status == NO_ERRORS;
    return status;
}

// The number of a change, as the name of its file says; 0 for another name.
static long NumberOf(const std::string& file)
{
    long number = 0;
    const char* end = file.data() + file.size();
    if (file.size() != Digits || !std::all_of(file.begin(), file.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return 0;
    return std::from_chars(file.data(), end, number).ec == std::errc() ? number : 0;
}

// Makes the directory, or finds the changes in it.
short FaultJournal::Open(std::set<long>& numbers)
{
    if (const int error = MakeDirectory(directory.c_str()))
        return Fail(MKDIR_FAILED, directory, error);
    DIR* files = opendir(directory.c_str());
    if (files == nullptr)
        return Fail(errno == ENOTDIR ? MKDIR_FAILED : OPENING_FILE, directory, errno);
    std::vector<std::string> names;
    if (const int error = ReadNames(files, names))
        return Fail(READING_FROM_FILE, directory, error);
    for (const std::string& file : names)
        if (const long number = NumberOf(file))
            numbers.insert(number);
    return NO_ERRORS;
}

// A name stands on a line.
static bool IsName(const char* text, std::size_t size)
{
    return size > 1 && size <= LargestName && text[size - 1] == '\n' &&
           std::all_of(text, text + size - 1, [](unsigned char c) { return std::isgraph(c); });
}

short FaultJournal::ReadName()
{
    Buffer data;
    const int error = ReadWholeFile(nameFile.c_str(), data);
    if (error != 0 && error != ENOENT)
        return Fail(READING_FROM_FILE, nameFile, error);
    const char* text = static_cast<const char*>(static_cast<const void*>(data));
    isDamaged = error == ENOENT || !IsName(text, data.Size());
    if (isDamaged && error == 0) {
        broken.insert(nameFile);
        Fail(READING_FROM_FILE, nameFile, 0);
    }
    if (isDamaged)
        return NO_ERRORS;
    name = std::string(text, data.Size() - 1).c_str();
    return name.strlen() > 0 ? static_cast<short>(NO_ERRORS) : Fail(OUT_OF_MEMORY, nameFile, ENOMEM);
}

short FaultJournal::ReadStep()
{
    Buffer data;
    const int error = ReadWholeFile(stepFile.c_str(), data);
    if (error != 0 && error != ENOENT)
        return Fail(READING_FROM_FILE, stepFile, error);
    hasStep = error == 0;
    return NO_ERRORS;
}

short FaultJournal::ReadChanges(const std::set<long>& numbers)
{
    for (const long number : numbers) {
        FaultChange change;
        std::size_t size = 0;
        short status = NO_ERRORS;
        const Found found = ReadChange(number, change, size, status);
        if (found == Unreadable)
            return status;
        if (found == Whole)
            sizes[number] = size;
        else
            broken.insert(ChangeFile(number));
        isDamaged = isDamaged || found == Broken;
        counter = number;
    }
    // A host may show a directory as empty that it failed to read, and an empty one would count from the beginning.
    return counter > 0 || !hasStep ? static_cast<short>(NO_ERRORS) : Fail(READING_FROM_FILE, directory, 0);
}

// What is not whole in memory has been reported, with its type in `status`.
FaultJournal::Found FaultJournal::ReadChange(long number, FaultChange& change, std::size_t& size, short& status) const
{
    const std::string file = ChangeFile(number);
    Buffer data;
    int error = ReadWholeFile(file.c_str(), data);
    size = data.Size();
    if (error == 0 && Unpack(data, change) && change.number == number)
        return Whole;
    if (error == 0)
        error = errno == ENOMEM ? ENOMEM : 0;
    status = Fail(READING_FROM_FILE, file, error);
    return error == 0 ? Broken : Unreadable;
}

short FaultJournal::LoseStep()
{
    if (unlink(stepFile.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR)
        return Fail(UNLINKING_FILE, stepFile, errno);
    const int error = SyncDirectory(directory.c_str());
    if (error != 0 && error != ENOENT && error != ENOTDIR)
        return Fail(UNLINKING_FILE, stepFile, error);
    hasStep = false;
    return NO_ERRORS;
}

short FaultJournal::BeginSnapshot()
{
    const short status = name.strlen() > 0 ? static_cast<short>(NO_ERRORS) : WriteName();
    return status == NO_ERRORS ? Append(FaultChange::Began, FaultRecord()) : status;
}

// Gives the journal a name. A node does not give a process id twice within a second.
short FaultJournal::WriteName()
{
    std::string text = ProgInfo::GetNodeName();
    text = text.substr(0, FaultNodeLimit) + "-" + std::to_string(Dates::CurrentTime()) + "-" + std::to_string(getpid());
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return !std::isgraph(c); }, '_');
    const std::string line = text + "\n";
    if (broken.count(nameFile) != 0)
        if (const int error = SetAside(nameFile.c_str()))
            return Fail(WRITING_TO_FILE, nameFile, error);
    Buffer data;
    errno = 0;
    data.Append(line.data(), static_cast<unsigned>(line.size()));
    const short status = data.Size() == line.size() ? Save(nameFile, data) : Fail(OUT_OF_MEMORY, nameFile, ENOMEM);
    if (status != NO_ERRORS)
        return status;
    broken.erase(nameFile);
    name = text.c_str();
    return name.strlen() > 0 ? static_cast<short>(NO_ERRORS) : Fail(OUT_OF_MEMORY, nameFile, ENOMEM);
}

short FaultJournal::EndSnapshot()
{
    short status = SetBrokenAside();
    if (status == NO_ERRORS)
        status = Save(stepFile, Buffer());
    hasStep = status == NO_ERRORS;
    isDamaged = isDamaged && !hasStep;
    return status;
}

short FaultJournal::SetBrokenAside()
{
    for (const std::string& file : broken) {
        int error = SetAside(file.c_str());
        if (error == 0 && unlink(file.c_str()) != 0)
            error = errno;
        if (error != 0)
            return Fail(WRITING_TO_FILE, file, error);
    }
    broken.clear();
    return NO_ERRORS;
}

short FaultJournal::Append(FaultChange::Kind kind, const FaultRecord& fault)
{
    if (counter == LONG_MAX)
        return Fail(INVALID_DATA, directory, EOVERFLOW);
    const std::string file = ChangeFile(counter + 1);
    Buffer data;
    errno = 0;
    const FaultChange change = {counter + 1, Dates::CurrentTime(), kind, fault};
    Pack(change, data);
    if (errno == ENOMEM)
        return Fail(OUT_OF_MEMORY, file, ENOMEM); // it has room for a part only
    if (data.Size() > LargestChange)
        return Fail(INVALID_DATA, file, EFBIG);
    if (!isTaking)
        return Fail(WRITING_TO_FILE, file, 0);
    if (const int error = ReplaceFile(file.c_str(), data, data.Size()))
        return Fail(WRITING_TO_FILE, file, error);
    counter++;
    sizes[counter] = data.Size();
    const int error = SyncDirectory(directory.c_str());
    if (error == 0)
        return NO_ERRORS;
    const short status = Fail(WRITING_TO_FILE, file, error);
    TakeBack();
    return status;
}

void FaultJournal::TakeBack()
{
    const std::string file = ChangeFile(counter);
    const int error = unlink(file.c_str()) != 0 ? errno : SyncDirectory(directory.c_str());
    if (error != 0) {
        Fail(UNLINKING_FILE, file, error);
        Withhold();
        return;
    }
    sizes.erase(counter);
    counter--;
}

void FaultJournal::Withhold()
{
    Fail(WRITING_TO_FILE, directory + " takes no changes until the next start", 0);
    sizes.erase(counter);
    isTaking = false;
}

short FaultJournal::Read(long number, FaultChange& change) const
{
    std::size_t size = 0;
    short status = NO_ERRORS;
    ReadChange(number, change, size, status);
    return status;
}

short FaultJournal::List(const ChangesRequest& request, FaultChangeList& list) const
{
    list.journal = name;
    list.last = Newest();
    const std::size_t most = std::min(static_cast<std::size_t>(request.most), MostInAnswer);
    std::size_t size = 0;
    list.changes.clear();
    list.changes.reserve(std::min(most, sizes.size())); // a copy would be one of the attachments too
    for (auto at = sizes.upper_bound(request.since); at != sizes.end() && list.changes.size() < most; ++at) {
        size += at->second;
        if (!list.changes.empty() && size > LargestAnswer)
            break;
        list.changes.emplace_back();
        const short status = Read(at->first, list.changes.back());
        if (status != NO_ERRORS)
            return status;
    }
    return NO_ERRORS;
}

short FaultJournal::Remove(long number)
{
    if (number > Newest())
        return INVALID_DATA;
    bool hasRemoved = false;
    while (sizes.size() > 1 && sizes.begin()->first <= number) { // from the oldest on, so that a crash makes no gap
        const std::string file = ChangeFile(sizes.begin()->first);
        if (unlink(file.c_str()) != 0 && errno != ENOENT)
            return Fail(UNLINKING_FILE, file, errno);
        sizes.erase(sizes.begin());
        hasRemoved = true;
    }
    const int error = hasRemoved ? SyncDirectory(directory.c_str()) : 0;
    return error == 0 ? static_cast<short>(NO_ERRORS) : Fail(UNLINKING_FILE, directory, error);
}

void FaultJournal::dumpOn(std::ostream& out) const
{
    out << "Journal: " << name << ", changes " << (sizes.empty() ? 0 : sizes.begin()->first) << " to " << Newest()
        << (isTaking ? "" : ", takes no more") << std::endl;
}

short FaultJournal::Save(const std::string& file, const Buffer& data)
{
    int error = ReplaceFile(file.c_str(), data, data.Size());
    if (error == 0)
        error = SyncDirectory(directory.c_str());
    return error == 0 ? static_cast<short>(NO_ERRORS) : Fail(WRITING_TO_FILE, file, error);
}

std::string FaultJournal::ChangeFile(long number) const
{
    char digits[Digits + 2];
    std::snprintf(digits, sizeof digits, "/%0*ld", static_cast<int>(Digits), number);
    return directory + digits;
}

short FaultJournal::Fail(short type, const std::string& what, int error) const
{
    errno = error;
    _ReportError(WARNING, type, what.c_str(), ModuleId(), __LINE__);
    return type;
}
