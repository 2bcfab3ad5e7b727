// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/errno.h"

#include <gtest/gtest.h>

namespace {

TEST(SavedErrno, GivesTheOldValueBackWhenItDies)
{
    errno = EXDEV;
    {
        const svr4::SavedErrno savedErrno;
        EXPECT_EQ(errno, EXDEV) << "keeping it does not change it";
        errno = ENOENT;
    }
    EXPECT_EQ(errno, EXDEV);
}

TEST(SavedErrno, GivesZeroBackToo)
{
    errno = 0;
    {
        const svr4::SavedErrno savedErrno;
        errno = ENOENT;
    }
    EXPECT_EQ(errno, 0);
}

TEST(SavedErrno, TellsTheOldValueMeanwhile)
{
    errno = EXDEV;
    const svr4::SavedErrno savedErrno;
    errno = ENOENT;
    EXPECT_EQ(savedErrno.Value(), EXDEV);
    EXPECT_EQ(errno, ENOENT);
}

TEST(SavedErrno, TheResultOfAFunctionIsMadeBefore)
{
    errno = EXDEV;
    const int result = [] {
        const svr4::SavedErrno savedErrno;
        errno = ENOENT;
        return errno;
    }();
    EXPECT_EQ(result, ENOENT);
    EXPECT_EQ(errno, EXDEV);
}

TEST(SavedErrno, EachGivesItsOwnValueBack)
{
    errno = EXDEV;
    {
        const svr4::SavedErrno outer;
        errno = ENOENT;
        {
            const svr4::SavedErrno inner;
            errno = EPERM;
        }
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_EQ(errno, EXDEV);
}

TEST(FailWith, IsTheResultOfACallThatFailed)
{
    errno = 0;
    EXPECT_EQ(svr4::FailWith(ERANGE), -1);
    EXPECT_EQ(errno, ERANGE);
}

} // namespace
