// Calendar times and uptimes. The input is the text of a time, a newline, then the numbers of
// another one and the size of the place for its text.
#include "lh_strtime.h"

#include <cstdio>

#include "fuzz/support/fuzz.hpp"

using namespace vyt::fuzz;

namespace {

using Fields = std::vector<int>;

constexpr const char *blanks = " \t\n\v\f\r";

Fields fields_of(const tm &time)
{
    return {time.tm_year, time.tm_mon, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec};
}

// A number of at most so many digits, behind any blanks; one more digit is not taken where the
// number could only leave its range by it.
std::optional<int> plain_number(const char *&at, int from, int to, int digits)
{
    at += strspn(at, blanks);
    if (*at < '0' || *at > '9')
        return std::nullopt;
    int value = 0;
    do {
        value = value * 10 + (*at++ - '0');
    } while (--digits > 0 && value * 10 <= to && *at >= '0' && *at <= '9');
    return value >= from && value <= to ? std::optional(value) : std::nullopt;
}

// "%F %H:%M:%S": the date as one, then field by field until one does not match.
Fields plain_parse(const std::string &text, const Fields &before)
{
    struct {
        int from, to, digits, offset;
        char behind;
    } constexpr layout[] = {{0, 9999, 4, 1900, '-'}, {1, 12, 2, 1, '-'}, {1, 31, 2, 0, ' '},
                            {0, 23, 2, 0, ':'},      {0, 59, 2, 0, ':'}, {0, 61, 2, 0, '\0'}};
    constexpr size_t date_fields = 3;
    Fields fields = before;
    const char *at = text.c_str();
    for (size_t i = 0; i < fields.size(); i++) {
        const auto number = plain_number(at, layout[i].from, layout[i].to, layout[i].digits);
        if (number.has_value())
            fields[i] = *number - layout[i].offset;
        if (number.has_value() && layout[i].behind == ' ')
            at += strspn(at, blanks);
        else if (!number.has_value() || *at++ != layout[i].behind)
            return i < date_fields ? before : fields;
    }
    return fields;
}

tm time_of(const Fields &fields)
{
    tm time = {};
    time.tm_year = fields[0];
    time.tm_mon = fields[1];
    time.tm_mday = fields[2];
    time.tm_hour = fields[3];
    time.tm_min = fields[4];
    time.tm_sec = fields[5];
    return time;
}

// The text of a time that a calendar has, and back.
void check_round_trip(const Fields &fields)
{
    char expected[64];
    snprintf(expected, sizeof(expected), "%d-%02d-%02d %02d:%02d:%02d", fields[0] + 1900,
             fields[1] + 1, fields[2], fields[3], fields[4], fields[5]);
    const tm time = time_of(fields);
    Exact room(std::string(strlen(expected) + 1, '?'));
    EXPECT_EQ(lh_strtime(room.data(), room.size(), &time), 0);
    EXPECT_STREQ(room.data(), expected);
    tm back = time_of({1, 2, 3, 4, 5, 6});
    EXPECT_EQ(lh_strptime(room.data(), &back), 0);
    EXPECT_EQ(fields_of(back), fields);
}

// Any numbers at all, into a place of any size: nothing is written behind it.
void check_any_time(const Fields &fields, size_t size)
{
    const tm time = time_of(fields);
    Exact room(std::string(size, '?'));
    EXPECT_EQ(lh_strtime(room.data(), room.size(), &time), 0);
}

void check_uptime(unsigned seconds, size_t size)
{
    char expected[64];
    snprintf(expected, sizeof(expected), "%02u,%02u:%02u:%02u", seconds / 86400,
             seconds % 86400 / 3600, seconds % 3600 / 60, seconds % 60);
    Exact room(std::string(size, '?'));
    EXPECT_EQ(lh_str_form_uptime(seconds, room.data(), static_cast<int>(size)), 0);
    if (size != 0)
        EXPECT_EQ(std::string(room.data()), std::string(expected).substr(0, size - 1));
}

} // namespace

void vyt::fuzz::prepare() {}

void vyt::fuzz::run(Input input)
{
    const std::string text = c_text(input.line());
    const Fields before = {-1, -2, -3, -4, -5, -6};
    tm time = time_of(before);
    EXPECT_EQ(lh_strptime(Exact::text(text).data(), &time), 0);
    const Fields parsed = fields_of(time);
    EXPECT_EQ(parsed, plain_parse(text, before));
    if (std::all_of(parsed.begin() + 1, parsed.end(), [](int field) { return field >= 0; }))
        check_round_trip(parsed);

    const size_t size = input.below(64);
    Fields any;
    while (any.size() < 6)
        any.push_back(static_cast<int>(input.number(4)));
    check_any_time(any, size);
    check_uptime(input.number(4), size);
}
