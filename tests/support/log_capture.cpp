#include "support/log_capture.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <syslog.h>
#include <unistd.h>

#include "lh_process.h"

namespace vyt::test {
namespace {

constexpr int spoiled_errno = 4242;

std::mutex mutex;
std::vector<std::string> lines;
std::string syslog_format;
debug_call last_call;
unsigned debug_flags;
int debug_answer = 1;
unsigned flag_questions;
int alive_mgr_pid = -1;

std::string render(const char *format, va_list args)
{
    char *text = nullptr;
    const int length = vasprintf(&text, format, args);
    std::string rendered = length < 0 ? "unprintable" : std::string(text, length);
    free(text);
    return rendered;
}

// The argument of a conversion: s, d, u, x, o, with an l before it where the number is long.
std::string next_argument(char conversion, bool is_long, va_list *args)
{
    switch (conversion) {
    case 's':
        return va_arg(*args, const char *);
    case 'd':
        return std::to_string(is_long ? va_arg(*args, long) : va_arg(*args, int));
    case 'u':
    case 'x':
    case 'o':
        return std::to_string(is_long ? va_arg(*args, unsigned long) : va_arg(*args, unsigned));
    default:
        throw std::runtime_error("log_capture.cpp does not know the conversion");
    }
}

std::vector<std::string> arguments_of(const char *format, va_list given)
{
    std::vector<std::string> arguments;
    va_list args;
    va_copy(args, given);
    for (const char *at = format; (at = strchr(at, '%')) != nullptr; at++) {
        if (*++at == '%')
            continue;
        const bool is_long = *at == 'l';
        at += is_long;
        arguments.push_back(next_argument(*at, is_long, &args));
    }
    va_end(args);
    return arguments;
}

std::string own_prefix()
{
    return std::string(program_invocation_short_name) + "(" + std::to_string(getpid()) + ")";
}

// Drops `start` from the text if it stands there.
bool drop(std::string &text, const std::string &start)
{
    if (text.rfind(start, 0) != 0)
        return false;
    text.erase(0, start.size());
    return true;
}

// Takes "FUNCTION:LINE> " from the start and answers the function; nothing, and nothing is taken,
// where the text does not start so.
std::optional<std::string> drop_place(std::string &text)
{
    const auto is_letter = [](unsigned char ch) { return isalnum(ch) != 0 || ch == '_'; };
    const auto is_digit = [](unsigned char ch) { return isdigit(ch) != 0; };
    const auto name_end = std::find_if_not(text.begin(), text.end(), is_letter);
    if (name_end == text.begin() || name_end == text.end() || *name_end != ':')
        return std::nullopt;
    const auto number_end = std::find_if_not(name_end + 1, text.end(), is_digit);
    if (number_end == name_end + 1 || name_end[1] == '0')
        return std::nullopt;
    std::string rest(number_end, text.end());
    if (!drop(rest, "> "))
        return std::nullopt;
    const std::string function(text.begin(), name_end);
    text = rest;
    return function;
}

// The same behind a "<"; the text says ":#" then, where the line number was.
bool shorten_place(std::string &text)
{
    std::string rest = text;
    if (!drop(rest, "<"))
        return false;
    const auto function = drop_place(rest);
    if (function.has_value())
        text = "<" + *function + ":#> " + rest;
    return function.has_value();
}

std::string short_error_line(int priority, std::string text)
{
    const std::string level = priority == LOG_ERR ? "" : "[" + std::to_string(priority) + "] ";
    std::string rest = text;
    if (drop(rest, "<" + own_prefix() + ":")) {
        if (const auto function = drop_place(rest))
            return level + *function + ": " + rest;
    }
    shorten_place(text);
    return level + text;
}

std::string short_debug_line(int priority, std::string text)
{
    std::string rest = text;
    for (const char *flag : {"INOTIFY_DBG", "VRRP_DBG"}) {
        const std::string prefix =
            std::string("%VYT_HELPERS-D-") + flag + ": <" + own_prefix() + "> ";
        if (priority != LOG_DEBUG || !drop(rest, prefix))
            continue;
        shorten_place(rest);
        return std::string(flag) + " " + rest;
    }
    return "[" + std::to_string(priority) + "] " + text;
}

void keep_format(const char *format)
{
    const std::lock_guard lock(mutex);
    syslog_format = format;
}

void remember(int priority, const char *format, va_list args)
{
    const std::lock_guard lock(mutex);
    last_call = {priority, format, arguments_of(format, args)};
}

void keep(std::string line)
{
    const std::lock_guard lock(mutex);
    lines.push_back(std::move(line));
    errno = spoiled_errno;
}

} // namespace

std::vector<std::string> take_lines()
{
    const std::lock_guard lock(mutex);
    return std::exchange(lines, {});
}

std::string last_syslog_format()
{
    const std::lock_guard lock(mutex);
    return syslog_format;
}

debug_call last_debug_call()
{
    const std::lock_guard lock(mutex);
    return last_call;
}

void set_debug_flags(unsigned flags)
{
    debug_flags = flags;
}

void set_debug_answer(int answer)
{
    debug_answer = answer;
}

unsigned take_flag_questions()
{
    return std::exchange(flag_questions, 0);
}

void set_alive_mgr_pid(int pid)
{
    alive_mgr_pid = pid;
}

ColdLogTest::ColdLogTest()
{
    take_lines();
    last_call = {};
    take_flag_questions();
    set_debug_flags(0);
    set_debug_answer(1);
    set_alive_mgr_pid(-1);
}

ColdLogTest::~ColdLogTest() = default;

void ColdLogTest::TearDown()
{
    for (const std::string &line : take_lines())
        ADD_FAILURE() << "unexpected line: " << line;
}

LogTest::LogTest()
{
    lh_process_self_name_get();
}

} // namespace vyt::test

using namespace vyt::test;

extern "C" {

void syslog(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = render(format, args);
    va_end(args);
    keep_format(format);
    keep(short_error_line(priority, std::move(text)));
}

int SYSLOG_flag_get(int subsystem, int flag)
{
    flag_questions++;
    errno = spoiled_errno;
    return subsystem == 99 && (debug_flags >> flag & 1u) != 0 ? debug_answer : 0x100;
}

void SYSLOG_message(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    remember(priority, format, args);
    std::string text = render(format, args);
    va_end(args);
    keep(short_debug_line(priority, std::move(text)));
}

int get_alive_mgr_pid(int unused)
{
    return unused == 0 ? alive_mgr_pid : -2;
}
}
