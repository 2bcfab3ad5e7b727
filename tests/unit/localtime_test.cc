// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/detail/localtime.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"

using namespace testing_support;

namespace {

bool Same(const tm& a, const tm& b)
{
    return a.tm_sec == b.tm_sec && a.tm_min == b.tm_min && a.tm_hour == b.tm_hour && a.tm_mday == b.tm_mday &&
           a.tm_mon == b.tm_mon && a.tm_year == b.tm_year && a.tm_wday == b.tm_wday && a.tm_yday == b.tm_yday;
}

TEST(LocalTime, WithTheOffsetKeptIsWhatTheHostSays)
{
    for (const char* zone : {"UTC0", "XXX-5:45", "XXX11:30", "XXX-14"})
        EXPECT_EQ(RunInChild([&] {
                      setenv("TZ", zone, 1);
                      zeloo::LocalTime(time(nullptr));
                      zeloo::KeepLocalOffset();
                      uint64_t seed = 1;
                      for (int i = 0; i < 20000; i++) {
                          seed = seed * 6364136223846793005ul + 1442695040888963407ul;
                          const time_t moment = static_cast<time_t>(seed >> 30) - (time_t{1} << 33); // some 270 years
                          CHILD_CHECK(Same(zeloo::LocalTime(moment), *localtime(&moment)));
                      }
                  }).exitCode,
                  0)
            << zone;
}

TEST(LocalTime, OnlyWhatIsAboutThePresentMovesTheOffset)
{
    EXPECT_EQ(RunInChild([] {
                  setenv("TZ", "XXX-1", 1);
                  const time_t now = time(nullptr);
                  zeloo::LocalTime(now);
                  setenv("TZ", "XXX-2", 1);
                  zeloo::LocalTime(now - 100 * 86400);
                  zeloo::KeepLocalOffset();
                  const time_t local = now + 3600;
                  CHILD_CHECK(Same(zeloo::LocalTime(now), *gmtime(&local)));
              }).exitCode,
              0);
}

TEST(LocalTime, AYearThatDoesNotFitIsAllZero)
{
    const tm zero = {};
    const tm far = zeloo::LocalTime(INT64_MAX);
    EXPECT_TRUE(Same(far, zero));
    EXPECT_EQ(RunInChild([&] {
                  zeloo::KeepLocalOffset();
                  CHILD_CHECK(Same(zeloo::LocalTime(INT64_MAX - 86400), zero));
              }).exitCode,
              0);
}

TEST(LocalTime, AMomentBeyondTheLastOfTheClockIsAllZero)
{
    EXPECT_EQ(RunInChild([] {
                  setenv("TZ", "EAST-1", 1);
                  zeloo::LocalTime(time(nullptr));
                  zeloo::KeepLocalOffset();
                  CHILD_CHECK(Same(zeloo::LocalTime(INT64_MAX), tm()));
                  CHILD_CHECK(Same(zeloo::LocalTime(-INT64_MAX), tm()));
              }).exitCode,
              0);
}

} // namespace
