// SPDX-License-Identifier: BSD-2-Clause
// Names of files, shell patterns, the texts of dates, and the file that names the server's host.
#include <cctype>
#include <cstdlib>
#include <set>

#include <fnmatch.h>

#include "Misc/Dates.h"
#include "Misc/FileList.h"
#include "Misc/fileinfo.h"
#include "Misc/ipctli.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

static std::string Expanded(const std::string& name)
{
    std::string expanded;
    for (std::size_t at = 0; at < name.size();) {
        if (name[at] != '$') {
            expanded += name[at++];
            continue;
        }
        const std::size_t begin = ++at;
        while (at < name.size() && (std::isalnum(static_cast<unsigned char>(name[at])) || name[at] == '_'))
            at++;
        const std::string variable = name.substr(begin, at - begin);
        const char* value = std::getenv(variable.c_str());
        expanded += value != nullptr ? std::string(value) : variable;
    }
    return expanded;
}

static void CheckName(const std::string& name)
{
    const std::string expanded = FileInfo::ExpandFileName(name.c_str());
    if (name.empty() || name[0] != '~')
        FUZZ_CHECK(expanded == Expanded(name).substr(0, expanded.size() < 1000 ? std::string::npos : expanded.size()));
    const std::size_t slash = name.rfind('/');
    FUZZ_CHECK(FileInfo::FilePathName(name.c_str()) == (slash == std::string::npos ? "" : name.substr(0, slash)));
    FUZZ_CHECK(FileInfo::FileBaseName(name.c_str()) == (slash == std::string::npos ? name : name.substr(slash + 1)));
}

static void CheckPattern(const std::string& pattern, const std::string& first, const std::string& second)
{
    FileList list(fuzzing::Directory().c_str(), pattern.c_str());
    for (const std::string& name : {first, second})
        list.AddFileName(name.c_str());
    list.sort();
    for (const std::string& name : {first, second})
        FUZZ_CHECK(list.FindFile(name.c_str()) == (pattern.empty() || fnmatch(pattern.c_str(), name.c_str(), 0) == 0));
}

static void CheckDate(const std::string& text)
{
    const long time = Dates::GetDateTime(text.c_str());
    const std::string written = Dates::GetDateTime(time);
    if (written.size() == 19 && time > 0) // of a year with four digits
        FUZZ_CHECK(Dates::GetDateTime(written.c_str()) == time);
}

static void CheckHost(const std::string& content)
{
    fuzzing::WriteFile("/var/orv/data/orvdserver.host", content);
    const std::string line = content.substr(0, content.find('\n')).substr(0, 256);
    const char* host = IPCTli::get_default_hostname("orvd");
    FUZZ_CHECK(host != nullptr && std::strlen(host) <= 256);
    FUZZ_CHECK(fuzzing::UpToZero(line).substr(0, std::strlen(host)) == host);
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setenv("TZ", "UTC", 1);
    setenv("A", "value", 1);
    setenv("EMPTY", "", 1);
    setenv("_N1", "/a/b$A", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    const std::string pattern = in.Text();
    const std::string first = in.Text();
    const std::string second = in.Text();
    CheckName(first);
    CheckName(second);
    if (pattern.size() < 40) // matching costs time that grows without bound with the stars in it
        CheckPattern(pattern, first, second);
    CheckDate(pattern);
    CheckDate(first);
    if (in.Flag())
        CheckHost(in.Rest());
    return 0;
}
