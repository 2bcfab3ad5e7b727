// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/fileinfo.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/detail/limits.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/text.h"
#include "Misc/proginfo.h"

using zeloo::BaseName;
using zeloo::CopyText;
using zeloo::NearestLong;
using zeloo::NewText;
using zeloo::TextOrEmpty;

[[maybe_unused]] static const char* ModuleId() { return "$Id: fileinfo.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static bool Examine(const char* name, struct stat* status) { return name != nullptr && stat(name, status) == 0; }

long FileInfo::FileSize(const char* name)
{
    struct stat status;
    return Examine(name, &status) ? NearestLong(status.st_size) : 0;
}

long FileInfo::FileSize(int fd)
{
    struct stat status;
    if (fstat(fd, &status) == 0)
        return NearestLong(status.st_size);
    std::cerr << TextOrEmpty(ProgInfo::GetProgramName()) << ": error in FileInfo::FileSize\n";
    return 0;
}

const char* FileInfo::FileMTime(const char* name)
{
    static char text[25];
    struct stat status;
    if (Examine(name, &status)) {
        CopyText(text, Dates::GetDateTime(NearestLong(status.st_mtime)));
    } else {
        std::cerr << TextOrEmpty(ProgInfo::GetProgramName()) << ": error in FileInfo::FileMTime (" << TextOrEmpty(name)
                  << ")\n";
        CopyText(text, "");
    }
    return text;
}

long FileInfo::FileStampTime(const char* name)
{
    struct stat status;
    if (!Examine(name, &status))
        return 0;
    tm local = Dates::CurrentTm(NearestLong(status.st_mtime));
    return Dates::CurrentTime(&local);
}

short FileInfo::FileExists(const char* name) { return name != nullptr && access(name, F_OK) == 0; }

namespace {

// A text that grows in a buffer of its own up to the limit for path names; what does not fit is cut.
class PathText {
public:
    void Append(const char* s, size_t n)
    {
        const size_t room = sizeof text - 1 - length;
        n = n < room ? n : room;
        memcpy(text + length, s, n);
        length += n;
        text[length] = '\0';
    }
    void Append(const char* s) { Append(s, strlen(s)); }
    const char* Text() const { return text; }

private:
    char text[PATH_MAX] = "";
    size_t length = 0;
};

} // namespace

// The login name; without a terminal the host may know none, and then the real user is taken.
static const char* LoginName()
{
    const char* login = getlogin();
    if (login != nullptr)
        return login;
    const struct passwd* entry = getpwuid(getuid());
    return entry != nullptr ? entry->pw_name : "";
}

// Appends what the "~user" between `name` and `slash` stands for.
static void AppendHome(PathText& path, const char* name, const char* slash)
{
    PathText user;
    if (slash == name + 1)
        user.Append(LoginName());
    else
        user.Append(name + 1, static_cast<size_t>(slash - name - 1));
    const struct passwd* entry = getpwnam(user.Text());
    if (entry != nullptr) {
        path.Append(entry->pw_dir);
    } else {
        path.Append("~");
        path.Append(user.Text());
    }
}

static bool IsVariableCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// Appends the value of the variable whose name starts at `name`; the place behind that name.
static const char* AppendVariable(PathText& path, const char* name)
{
    const char* end = name;
    while (IsVariableCharacter(*end))
        end++;
    PathText variable;
    variable.Append(name, static_cast<size_t>(end - name));
    const char* value = getenv(variable.Text());
    path.Append(value != nullptr ? value : variable.Text()); // intended: an unset one is replaced by its own name
    return end;
}

const char* FileInfo::ExpandFileName(const char* name)
{
    static char text[PATH_MAX];
    PathText path; // apart from `text`, which may be `name`
    const char* from = TextOrEmpty(name);
    const char* slash = *from == '~' ? strchr(from, '/') : nullptr;
    if (slash != nullptr) {
        AppendHome(path, from, slash);
        from = slash;
    }
    while (*from != '\0') {
        if (*from == '$') {
            from = AppendVariable(path, from + 1);
        } else {
            const size_t plain = strcspn(from, "$");
            path.Append(from, plain);
            from += plain;
        }
    }
    CopyText(text, path.Text());
    return text;
}

// Puts a copy of `n` characters in the place of the last result, which `s` may lie in.
static const char* Renew(char** result, const char* s, size_t n)
{
    char* copy = NewText(s, n);
    delete[] * result;
    *result = copy;
    return TextOrEmpty(copy);
}

const char* FileInfo::FilePathName(const char* name)
{
    static char* result = nullptr;
    name = TextOrEmpty(name);
    const char* base = BaseName(name);
    return Renew(&result, name, base != name ? static_cast<size_t>(base - name - 1) : 0);
}

const char* FileInfo::FileBaseName(const char* name)
{
    static char* result = nullptr;
    const char* base = BaseName(name);
    return Renew(&result, base, strlen(base));
}
