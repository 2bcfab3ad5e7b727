// SPDX-License-Identifier: BSD-2-Clause
// Uses the part of the library that the environment variable BEFORE_MAIN names in the constructor and the destructor of a
// static object, in the way that makes it write to the standard streams.
//
// Nothing here may include <iostream>, by way of a header of the library neither: it would make the streams usable.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "Misc/BitFlags.h"
#include "Misc/CstrArray.h"
#include "Misc/Dates.h"
#include "Misc/FileList.h"
#include "Misc/Hierarc.h"
#include "Misc/Option.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/dsa.h"
#include "Misc/fileinfo.h"
#include "Misc/nfstream.h"
#include "Misc/proginfo.h"
#include "Misc/strxform.h"
#include "Misc/ularray.h"

#ifdef _GLIBCXX_IOSTREAM
#error "a header of the library includes <iostream>"
#endif

namespace {

void UseString()
{
    std::ifstream none("/dev/null");
    ZEListream in(none);
    CString text("text");
    in >> text;
    Buffer bytes;
    bytes.Append("9|abc");
    ZEListream shortIn(bytes);
    shortIn >> text; // writes that the string is short
    text += "!";
    puts(text);
}

void UseArray()
{
    CStringSafeArray array;
    CString present("present");
    array.SetPurgeMode(1);
    array.AddItem(present);
    array.InsertPtr(&array, &present); // writes that the place is not there
    printf("%u\n", array.Quantity());
}

void UseBuffer()
{
    Buffer bytes;
    bytes.Append("bytes");
    printf("%d\n", bytes.SaveBufferToFile("/nosuch/file", 0)); // reports
}

void UseStream()
{
    std::ifstream none("/dev/null");
    infstream in(none);
    long number = 7;
    in >> number;
    Buffer bytes;
    {
        ZELostream out(bytes);
        out << CString("name") << 12;
    }
    puts(bytes.GetCString());
    bytes.Append("3|a");
    ZEListream back(bytes);
    Option option;
    back.seekg(9, std::ios::beg);
    back >> option.Name; // writes that the string is short
    puts(option.Name);
}

void UseFileFacts()
{
    printf("%ld\n", FileInfo::FileSize(-1));               // writes that it can't be examined
    printf("<%s>\n", FileInfo::FileMTime("/nosuch/file")); // as well
    FileList list("/nosuch", "");
    printf("%d\n", list.FindFile("x"));
}

// What writes nothing of itself.
void UseValues()
{
    ulongArray levels(3);
    HierarchicNum number;
    number.inc();
    BitFlags flags;
    StringTransformer transformer("n", "%n", "NO_SUCH_VARIABLE");
    char directive;
    while (transformer.nextCharacter(directive))
        transformer.Output(directive);
    transformer.OutputTime(0);
    printf("%zu %d\n", std::strlen(Dates::GetDateTime()), ProgInfo::GetNodeNameLongVersion()[0] != '\0');
}

struct {
    const char* name;
    void (*use)();
} const Uses[] = {{"string", UseString}, {"array", UseArray},    {"buffer", UseBuffer},
                  {"stream", UseStream}, {"file", UseFileFacts}, {"values", UseValues}};

void UseNamed()
{
    const char* name = std::getenv("BEFORE_MAIN");
    for (const auto& each : Uses)
        if (name != nullptr && std::strcmp(name, each.name) == 0)
            each.use();
    std::fflush(stdout);
}

struct User {
    User() { UseNamed(); }
    ~User() { UseNamed(); }
} const StaticUser;

} // namespace

int main()
{
    puts("main");
    fflush(stdout);
}
