// SPDX-License-Identifier: BSD-2-Clause
// The node list file with any content, and the nodes that ask for access.
#include <ctime>

#include <fcntl.h>
#include <netdb.h>
#include <sys/stat.h>

#include "Misc/cstring.h"
#include "Misc/misc.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

// Of the host's C library: names come from the file of hosts alone, so that no name server is asked.
extern "C" int __nss_configure_lookup(const char* database, const char* services);

static const char NodesFile[] = "/var/orv/data/orvnodes.dat";

static std::string Token(const std::string& line, std::size_t& at)
{
    at = std::min(line.find_first_not_of(" \t", at), line.size());
    const std::size_t end = std::min(line.find_first_of(" \t", at), line.size());
    std::string token = line.substr(at, end - at);
    at = end;
    return token;
}

// Finds the option of the first line with exactly that name.
static bool Find(const std::string& content, const std::string& node, std::string& option)
{
    for (std::size_t begin = 0; begin < content.size();) {
        const std::size_t end = std::min(content.find('\n', begin), content.size());
        const std::size_t length = std::min<std::size_t>(end - begin, 511);
        const std::string line = fuzzing::UpToZero(content.substr(begin, length));
        begin += length + (begin + length == end);
        std::size_t at = 0;
        const std::string name = Token(line, at);
        if (name.empty() || name != node)
            continue;
        option = Token(line, at);
        return true;
    }
    return false;
}

// Each list is later than the one before.
static void WriteNodes(const std::string& content)
{
    static time_t now = 1000;
    fuzzing::WriteFile(NodesFile, content);
    const struct timespec times[2] = {{++now, 0}, {now, 0}};
    FUZZ_CHECK(utimensat(AT_FDCWD, NodesFile, times, 0) == 0);
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    __nss_configure_lookup("hosts", "files");
    fuzzing::WriteFile("/etc/hosts", "127.0.0.1 localhost here alsohere\n127.0.0.9 there\n::1 six\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static int rejected = 0;
    Input in(data, size);
    static const char* const standards[] = {"none", "global", "", "full"};
    const char* standard = standards[in.Below(4)];
    std::string node = in.Text();
    if (in.Flag())
        node = in.Flag() ? "alsohere" : "there";
    const std::string content = in.Rest();
    WriteNodes(content);

    std::string option;
    const bool found = Find(content, node, option);
    if (!found && rejected > 2000 && node != "there" && node != "alsohere")
        return 0; // the list of those rejected lives as long as the process, and each look at it costs its length
    CString answer("earlier");
    const int isNew = GetAccessOptionForNode(node.c_str(), standard, answer);
    rejected += isNew;
    if (standard == standards[1])
        FUZZ_CHECK(isNew == 0 && answer == "global");
    else if (found)
        FUZZ_CHECK(isNew == 0 && answer == option.c_str());
    else if (isNew)
        FUZZ_CHECK(answer == standard);
    CString again;
    FUZZ_CHECK(GetAccessOptionForNode(node.c_str(), standard, again) == 0 && again == answer);
    return 0;
}
