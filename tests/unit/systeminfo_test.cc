// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/systeminfo.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <sys/utsname.h>

#include <gtest/gtest.h>

namespace {

std::string Info(int command)
{
    char text[257];
    EXPECT_GT(svr4::sysinfo(command, text, sizeof text), 0);
    return text;
}

TEST(Systeminfo, GivesTheHostsTexts)
{
    struct utsname host;
    ASSERT_EQ(uname(&host), 0);
    EXPECT_EQ(Info(svr4::SI_SYSNAME), host.sysname);
    EXPECT_EQ(Info(svr4::SI_HOSTNAME), host.nodename);
    EXPECT_EQ(Info(svr4::SI_RELEASE), host.release);
    EXPECT_EQ(Info(svr4::SI_VERSION), host.version);
    EXPECT_EQ(Info(svr4::SI_MACHINE), host.machine);
    EXPECT_EQ(Info(svr4::SI_ARCHITECTURE), host.machine);
}

TEST(Systeminfo, CutsToTheBufferAndTellsTheWholeSize)
{
    const std::string name = Info(svr4::SI_SYSNAME);
    const int size = static_cast<int>(name.size()) + 1;
    char text[8];
    memset(text, 'x', sizeof text);
    EXPECT_EQ(svr4::sysinfo(svr4::SI_SYSNAME, text, 3), size);
    EXPECT_EQ(std::string(text, 4), name.substr(0, 2) + std::string(1, '\0') + "x");
    EXPECT_EQ(svr4::sysinfo(svr4::SI_SYSNAME, text, 1), size);
    EXPECT_STREQ(text, "");
    text[0] = 'y';
    EXPECT_EQ(svr4::sysinfo(svr4::SI_SYSNAME, text, 0), size);
    EXPECT_EQ(svr4::sysinfo(svr4::SI_SYSNAME, nullptr, 0), size);
    EXPECT_EQ(text[0], 'y');
}

TEST(Systeminfo, RefusesUnknownCommands)
{
    char text[8] = "same";
    for (const int command : {0, 7, -1}) {
        errno = 0;
        EXPECT_EQ(svr4::sysinfo(command, text, sizeof text), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_STREQ(text, "same");
}

} // namespace
