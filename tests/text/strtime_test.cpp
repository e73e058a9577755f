#include "lh_strtime.h"

#include <climits>
#include <cstring>
#include <random>
#include <string>

#include "support/log_capture.hpp"

using namespace vyt::test;

namespace {

class StrTime : public LogTest {};

std::string uptime(unsigned seconds)
{
    char buf[16];
    EXPECT_EQ(lh_str_form_uptime(seconds, buf, sizeof(buf)), 0);
    return buf;
}

} // namespace

TEST_F(StrTime, AnUptimeHasTwoDigitsAtLeast)
{
    EXPECT_EQ(uptime(0), "00,00:00:00");
    EXPECT_EQ(uptime(59), "00,00:00:59");
    EXPECT_EQ(uptime(60), "00,00:01:00");
    EXPECT_EQ(uptime(3599), "00,00:59:59");
    EXPECT_EQ(uptime(3600), "00,01:00:00");
    EXPECT_EQ(uptime(86399), "00,23:59:59");
    EXPECT_EQ(uptime(86400), "01,00:00:00");
    EXPECT_EQ(uptime(90061), "01,01:01:01");
    EXPECT_EQ(uptime(100 * 86400), "100,00:00:00");
}

TEST_F(StrTime, FifteenBytesHoldTheLongestUptime)
{
    char buf[16] = "###############";
    EXPECT_EQ(lh_str_form_uptime(UINT_MAX, buf, 15), 0);
    EXPECT_STREQ(buf, "49710,06:28:15");
    EXPECT_EQ(buf[15], '\0');
}

TEST_F(StrTime, AnUptimeIsCutToFit)
{
    char buf[16];
    EXPECT_EQ(lh_str_form_uptime(90061, buf, 5), 0);
    EXPECT_STREQ(buf, "01,0");
    EXPECT_EQ(lh_str_form_uptime(90061, buf, 1), 0);
    EXPECT_STREQ(buf, "");
    buf[0] = '#';
    EXPECT_EQ(lh_str_form_uptime(90061, buf, 0), 0);
    EXPECT_EQ(buf[0], '#');
}

TEST_F(StrTime, AnUptimeNeedsABuffer)
{
    EXPECT_EQ(lh_str_form_uptime(1, nullptr, 16), -1);
    EXPECT_LINES("lh_str_form_uptime: PTR_IS_NULL: buf");
    EXPECT_EQ(lh_str_form_uptime(1, nullptr, -1), -1);
    EXPECT_LINES("lh_str_form_uptime: PTR_IS_NULL: buf");
    char buf[2] = "#";
    EXPECT_EQ(lh_str_form_uptime(1, buf, -1), -1);
    EXPECT_EQ(lh_str_form_uptime(1, buf, INT_MIN), -1);
    EXPECT_NO_LINES();
    EXPECT_STREQ(buf, "#");
}

TEST_F(StrTime, ACalendarTimeIsWritten)
{
    struct tm timeinfo = {};
    timeinfo.tm_year = 2024 - 1900;
    timeinfo.tm_mon = 2;
    timeinfo.tm_mday = 5;
    timeinfo.tm_hour = 7;
    timeinfo.tm_min = 8;
    timeinfo.tm_sec = 9;
    char str[20];
    EXPECT_EQ(lh_strtime(str, sizeof(str), &timeinfo), 0);
    EXPECT_STREQ(str, "2024-03-05 07:08:09");
}

TEST_F(StrTime, ABufferThatIsTooSmallIsNoFailure)
{
    struct tm timeinfo = {};
    char str[21];
    str[19] = '#';
    EXPECT_EQ(lh_strtime(str, 19, &timeinfo), 0);
    EXPECT_EQ(str[19], '#');
    EXPECT_EQ(lh_strtime(str, 0, &timeinfo), 0);
}

TEST_F(StrTime, ACalendarTimeIsRead)
{
    struct tm timeinfo = {};
    EXPECT_EQ(lh_strptime("2024-03-05 07:08:09", &timeinfo), 0);
    EXPECT_EQ(timeinfo.tm_year, 2024 - 1900);
    EXPECT_EQ(timeinfo.tm_mon, 2);
    EXPECT_EQ(timeinfo.tm_mday, 5);
    EXPECT_EQ(timeinfo.tm_hour, 7);
    EXPECT_EQ(timeinfo.tm_min, 8);
    EXPECT_EQ(timeinfo.tm_sec, 9);
}

TEST_F(StrTime, WhatTheTextDoesNotGiveKeepsItsValue)
{
    struct tm timeinfo;
    memset(&timeinfo, 0x5a, sizeof(timeinfo));
    const struct tm before = timeinfo;
    EXPECT_EQ(lh_strptime("garbage", &timeinfo), 0);
    EXPECT_EQ(lh_strptime("", &timeinfo), 0);
    EXPECT_EQ(memcmp(&timeinfo, &before, sizeof(before)), 0);
    EXPECT_EQ(lh_strptime("2024-03-05 07:garbage", &timeinfo), 0);
    EXPECT_EQ(timeinfo.tm_hour, 7);
    EXPECT_EQ(timeinfo.tm_min, before.tm_min);
    EXPECT_EQ(timeinfo.tm_sec, before.tm_sec);
}

TEST_F(StrTime, WithoutPointers)
{
    struct tm timeinfo = {};
    char str[20] = "kept";
    EXPECT_EQ(lh_strtime(nullptr, sizeof(str), nullptr), -1);
    EXPECT_LINES("lh_strtime: PTR_IS_NULL: str");
    EXPECT_EQ(lh_strtime(str, sizeof(str), nullptr), -1);
    EXPECT_LINES("lh_strtime: PTR_IS_NULL: timeinfo");
    EXPECT_STREQ(str, "kept");
    EXPECT_EQ(lh_strptime(nullptr, nullptr), -1);
    EXPECT_LINES("lh_strptime: PTR_IS_NULL: str");
    EXPECT_EQ(lh_strptime("2024-03-05 07:08:09", nullptr), -1);
    EXPECT_LINES("lh_strptime: PTR_IS_NULL: timeinfo");
    EXPECT_EQ(lh_strptime(nullptr, &timeinfo), -1);
    EXPECT_LINES("lh_strptime: PTR_IS_NULL: str");
}

TEST_F(StrTime, AWrittenTimeIsReadAsItWas)
{
    std::mt19937_64 random(84);
    constexpr time_t year_9999 = 253402300799;
    for (int round = 0; round < 5000; round++) {
        const time_t seconds = static_cast<time_t>(random() % (year_9999 + 1));
        struct tm written, read = {};
        gmtime_r(&seconds, &written);
        char str[20];
        ASSERT_EQ(lh_strtime(str, sizeof(str), &written), 0);
        ASSERT_EQ(lh_strptime(str, &read), 0);
        ASSERT_EQ(timegm(&read), seconds) << str;
    }
}
