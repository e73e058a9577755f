// The check family as a daemon uses it.
#include "lh_check.h"

#include <cerrno>
#include <climits>
#include <cstdint>

#include "support/log_capture.hpp"

using namespace vyt::test;

class Check : public LogTest {};

static int evaluations;

static int counted(int value)
{
    evaluations++;
    return value;
}

// A check fires with exactly one line, and keeps errno from its logger.
#define EXPECT_FIRES(check, message)                                                               \
    do {                                                                                           \
        errno = ENOTTY;                                                                            \
        EXPECT_TRUE(check);                                                                        \
        EXPECT_EQ(errno, ENOTTY);                                                                  \
        EXPECT_LINES(std::string(__func__) + ": " + (message));                                    \
    } while (false)

#define EXPECT_QUIET(check)                                                                        \
    do {                                                                                           \
        errno = ENOTTY;                                                                            \
        EXPECT_FALSE(check);                                                                       \
        EXPECT_EQ(errno, ENOTTY);                                                                  \
        EXPECT_NO_LINES();                                                                         \
    } while (false)

TEST_F(Check, Pointers)
{
    int value = 0;
    int *ctx = nullptr;
    EXPECT_FIRES(PTR_IS_NULL(ctx), "PTR_IS_NULL: ctx");
    EXPECT_QUIET(PTR_NOT_NULL(ctx));
    ctx = &value;
    EXPECT_FIRES(PTR_NOT_NULL(ctx), "PTR_NOT_NULL: ctx");
    EXPECT_QUIET(PTR_IS_NULL(ctx));
}

TEST_F(Check, SignedPairs)
{
    int fd = -5;
    EXPECT_FIRES(IS_EQ(-1, fd + 4), "IS_EQ check failed: -1 (-1 == -1) !!!");
    EXPECT_FIRES(IS_NE(fd, 3), "IS_NE check failed: fd (-5 != 3) !!!");
    EXPECT_FIRES(IS_LT(fd, 0), "IS_LT check failed: fd (-5 < 0) !!!");
    EXPECT_FIRES(IS_MT(fd + 9L, fd), "IS_MT check failed: fd + 9L (4 > -5) !!!");
    EXPECT_QUIET(IS_EQ(fd, 5));
    EXPECT_QUIET(IS_NE(fd, -5));
    EXPECT_QUIET(IS_LT(fd, -5));
    EXPECT_QUIET(IS_MT(fd, -5));
    EXPECT_QUIET(IS_MT(fd, 0));
}

TEST_F(Check, UnsignedPairs)
{
    uint64_t exp = 0;
    int64_t count = -1;
    EXPECT_FIRES(IS_NE(sizeof(exp), count),
                 "IS_NE check failed: sizeof(exp) (8 != 18446744073709551615) !!!");
    const size_t size = 7;
    EXPECT_FIRES(IS_EQ(size, 7u), "IS_EQ check failed: size (7 == 7) !!!");
    EXPECT_FIRES(IS_LT(size, 8u), "IS_LT check failed: size (7 < 8) !!!");
    EXPECT_FIRES(IS_MT(UINT64_MAX, 1), "IS_MT check failed: UINT64_MAX "
                                       "(18446744073709551615 > 1) !!!");
    EXPECT_QUIET(IS_LT(size, 7u));
    EXPECT_QUIET(IS_MT(size, 7u));
    EXPECT_QUIET(IS_LT(UINT64_MAX, 1));
}

TEST_F(Check, MoreOrEqualIsUnsigned)
{
    uint32_t group = 0;
    EXPECT_FIRES(IS_ME(group - 1, 32), "IS_ME check failed: group - 1 (4294967295 >= 32) !!!");
    EXPECT_FIRES(IS_ME(32, 32), "IS_ME check failed: 32 (32 >= 32) !!!");
    EXPECT_QUIET(IS_ME(31, 32));
}

TEST_F(Check, Ranges)
{
    unsigned id = 5;
    EXPECT_FIRES(OUT_OF_RANGE(id, 1, 4),
                 "OUT_OF_RANGE check failed: id is really out of range (1 5 4) !!!");
    EXPECT_FIRES(OUT_OF_RANGE(0, 1, 4),
                 "OUT_OF_RANGE check failed: 0 is really out of range (1 0 4) !!!");
    EXPECT_FIRES(OUT_OF_RANGE(-1, 1, 4), "OUT_OF_RANGE check failed: -1 is really out of range "
                                         "(1 18446744073709551615 4) !!!");
    EXPECT_QUIET(OUT_OF_RANGE(1, 1, 4));
    EXPECT_QUIET(OUT_OF_RANGE(4, 1, 4));
}

TEST_F(Check, ConditionsAndCalls)
{
    EXPECT_FIRES(IS_NOT(evaluations < 0), "IS_NOT: evaluations < 0");
    EXPECT_QUIET(IS_NOT(evaluations >= 0));
    EXPECT_FIRES(CALL_FAILED(counted(3)), "counted(3) failed");
    EXPECT_QUIET(CALL_FAILED(counted(0)));
}

TEST_F(Check, OperandsAreEvaluatedOnce)
{
    evaluations = 0;
    EXPECT_TRUE(IS_LT(counted(1), counted(2)));
    EXPECT_EQ(evaluations, 2);
    EXPECT_TRUE(IS_ME(counted(2), counted(2)));
    EXPECT_EQ(evaluations, 4);
    EXPECT_FALSE(OUT_OF_RANGE(counted(2), counted(1), counted(3)));
    EXPECT_EQ(evaluations, 7);
    take_lines();
}

TEST_F(Check, LimitsOfSignedNumbers)
{
    EXPECT_FIRES(IS_LT(LONG_MIN, LONG_MAX), "IS_LT check failed: LONG_MIN "
                                            "(-9223372036854775808 < 9223372036854775807) !!!");
    EXPECT_QUIET(IS_LT(LONG_MAX, LONG_MIN));
}
