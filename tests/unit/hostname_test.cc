// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/hostname.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

namespace {

class OfficialHostName : public testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /etc/hosts";
        earlier = ReadFile("/etc/hosts");
        WriteFile("/etc/hosts", "127.0.0.1 localhost\n"
                                "10.9.8.7 kestrel.kelvaro.example kestrel k7\n"
                                "10.0.0.1 10\n"
                                "255.255.255.255 everybody\n");
    }
    void TearDown() override
    {
        if (InSandbox())
            WriteFile("/etc/hosts", earlier);
    }

    static std::string Name(const char* host)
    {
        const char* name = zeloo::OfficialHostName(host);
        return name != nullptr ? name : "(null)";
    }

    std::string earlier;
};

TEST_F(OfficialHostName, OfAnAddress)
{
    EXPECT_EQ(Name("10.9.8.7"), "kestrel.kelvaro.example");
    EXPECT_EQ(Name("127.0.0.1"), "localhost");
    EXPECT_EQ(Name("10.0.0.1"), "10");
    EXPECT_EQ(Name("255.255.255.255"), "everybody");
}

TEST_F(OfficialHostName, OfAName)
{
    EXPECT_EQ(Name("kestrel.kelvaro.example"), "kestrel.kelvaro.example");
    EXPECT_EQ(Name("kestrel"), "kestrel.kelvaro.example");
    EXPECT_EQ(Name("k7"), "kestrel.kelvaro.example");
    EXPECT_EQ(Name("localhost"), "localhost");
}

TEST_F(OfficialHostName, ShortFormsOfAnAddressAreAddresses)
{
    EXPECT_EQ(Name("127.1"), "localhost");
    EXPECT_EQ(Name("10.9.2055"), "kestrel.kelvaro.example");
}

TEST_F(OfficialHostName, OfAnUnknownHost)
{
    EXPECT_EQ(Name("10.9.8.6"), "(null)");
    EXPECT_EQ(Name("nosuchhost.invalid"), "(null)");
    EXPECT_EQ(Name("300.1.1.1"), "(null)");
    EXPECT_EQ(Name("300.1.1.1.1"), "(null)");
    EXPECT_EQ(Name(""), "(null)");
    EXPECT_EQ(Name(nullptr), "(null)");
}

TEST_F(OfficialHostName, LeavesNoDescriptorOpen)
{
    Name("kestrel");
    const int descriptors = OpenDescriptors();
    for (int i = 0; i < 10; i++) {
        Name("kestrel");
        Name("10.9.8.7");
        Name("nosuchhost.invalid");
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

} // namespace
