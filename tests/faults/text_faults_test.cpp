// Every fault of strings, codecs, bit fields and time strings. Most functions here call nothing that
// can fail.
#include <cerrno>
#include <cstring>
#include <ctime>

#include "lh_base64.h"
#include "lh_bf.h"
#include "lh_str.h"
#include "lh_strtime.h"
#include "support/fault_sweep.hpp"

using namespace vyt::test;

namespace {

// A function that hands out a new text, or null after the line.
scenario handing_out(const char *function, const std::function<char *()> &call,
                     const std::string &outcome, const std::string &allocation,
                     const std::string &line)
{
    return {.function = function,
            .body = [call](Attempt &a) { return a.taken(a.faulted(call)); },
            .outcome = outcome,
            .faults = {fails(allocation, "null", {function + (": " + line)})}};
}

// Strings -----------------------------------------------------------------------------------------

std::string edited(const std::function<int(char *)> &call)
{
    char text[16] = "abcd";
    const int result = call(text);
    return shown(result) + " " + shown(text);
}

std::string changed(const std::function<void(char *)> &call)
{
    char text[16] = "abCa";
    call(text);
    return shown(text);
}

// The place that the string lies in, before and after the call.
std::string with_text(Attempt &a, const char *before, const std::function<int(char **)> &call)
{
    char *text = nullptr;
    EXPECT_TRUE(before == nullptr || lh_str_add(&text, "%s", before) == 0);
    const int result = a.faulted([&] { return call(&text); });
    return shown(result) + " " + a.taken(text);
}

std::string insert_before_each(Attempt &a, const char *text)
{
    static char untouched[] = "untouched";
    char *out = untouched;
    const int result =
        a.faulted([&] { return lh_str_insert_str_before_each_of_chrs(text, "\\", "\"", &out); });
    return shown(result) + " " + (out == untouched ? shown(out) : a.taken(out));
}

// What the buffer holds when nothing could be formatted is what it held before.
std::string format_checked(Attempt &a)
{
    char text[16] = "";
    const int result =
        a.faulted([&] { return _lh_snprintf(text, sizeof(text), "%s-%d", "eth", 7); });
    return shown(result) + " " + shown(text);
}

std::string decoded()
{
    unsigned char byte = 0;
    const int result = hex2bin(&byte, "aB", 1);
    return shown(result) + " " + shown(byte);
}

const std::vector<scenario> strings = {
    simply(
        "lh_str_chr_cnt_get", [] { return shown(lh_str_chr_cnt_get("a\0a", 3, 'a')); }, "2"),
    simply(
        "lh_str_insert_str",
        [] { return edited([](char *t) { return lh_str_insert_str(t, 16, t + 2, "XY", 2); }); },
        "0 'abXYcd'"),
    simply(
        "lh_str_insert_chr",
        [] { return edited([](char *t) { return lh_str_insert_chr(t, 16, t, 'X'); }); },
        "0 'Xabcd'"),
    simply(
        "lh_str_replace_symbol",
        [] { return changed([](char *t) { lh_str_replace_symbol(t, 'a', 'x'); }); }, "'xbCx'"),
    simply(
        "lh_str_toupper", [] { return changed([](char *t) { lh_str_toupper(t, 2); }); }, "'ABCa'"),
    simply(
        "lh_str_tolower", [] { return changed([](char *t) { lh_str_tolower(t, 16); }); }, "'abca'"),
    simply("hex2bin", decoded, "0 171"),
    {.function = "lh_str_insert_str_before_each_of_chrs",
     .way = "where there are two",
     .body = [](Attempt &a) { return insert_before_each(a, "\"\""); },
     .outcome = "0 '\\\"\\\"'",
     .faults = {fails("calloc", "-1 'untouched'",
                      {"lh_str_insert_str_before_each_of_chrs: PTR_IS_NULL: _str_new"})}},
    {.function = "lh_str_insert_str_before_each_of_chrs",
     .way = "where there is none",
     .body = [](Attempt &a) { return insert_before_each(a, "abc"); },
     .outcome = "0 'untouched'"},
    {.function = "lh_str_add",
     .way = "to nothing",
     .body =
         [](Attempt &a) {
             return with_text(a, nullptr, [](char **t) { return lh_str_add(t, "x=%d", 1); });
         },
     .outcome = "0 'x=1'",
     .faults = {fails("vasprintf", "-1 null", {"lh_str_add: vasprintf failed"})}},
    {.function = "lh_str_add",
     .way = "to a text",
     .body =
         [](Attempt &a) {
             return with_text(a, "x=1", [](char **t) { return lh_str_add(t, ",%s", "y"); });
         },
     .outcome = "0 'x=1,y'",
     // The second time it formats what it has measured.
     .faults = {fails("vsnprintf:1", "-1 null", {"lh_str_add: vsnprintf failed"}),
                fails("realloc", "-1 null", {"lh_str_add: PTR_IS_NULL: tmp"}),
                survived("vsnprintf:2")}},
    {.function = "lh_str_vasprintf",
     .body =
         [](Attempt &a) {
             return with_text(a, "old", [](char **t) { return lh_str_vasprintf(t, "x=%d", 1); });
         },
     .outcome = "0 'x=1'",
     .faults = {fails("vasprintf", "-1 null", {"lh_str_vasprintf: vasprintf failed"})}},
    {.function = "_lh_snprintf",
     .body = format_checked,
     .outcome = "0 'eth-7'",
     .faults = {fails("vsnprintf", "-1 ''", {"_lh_snprintf: truncated: ''"})}},
    handing_out(
        "lh_str_to_hex", [] { return lh_str_to_hex("aB"); }, "'6142'", "malloc", "malloc failed"),
    handing_out(
        "lh_hex_to_str", [] { return lh_hex_to_str("6142"); }, "'aB'", "malloc", "malloc failed"),
};

// Codecs ------------------------------------------------------------------------------------------

std::string decode(Attempt &a)
{
    size_t length = 99;
    auto *bytes = a.faulted([&] { return lh_base64_decode("Zm8=", &length); });
    const std::string text =
        bytes == nullptr ? "null" : shown(std::string(reinterpret_cast<char *>(bytes), length));
    a.release(bytes);
    return text;
}

const std::vector<scenario> codecs = {
    handing_out(
        "lh_base64_encode",
        [] { return lh_base64_encode(reinterpret_cast<const unsigned char *>("fo"), 2); }, "'Zm8='",
        "malloc", "PTR_IS_NULL: out"),
    {.function = "lh_base64_decode",
     .body = decode,
     .outcome = "'fo'",
     .faults = {fails("malloc", "null", {"lh_base64_decode: PTR_IS_NULL: out"})}},
    handing_out(
        "lh_base64_to_hex", [] { return lh_base64_to_hex("Zm9v", 4); }, "'666F6F'", "malloc",
        "PTR_IS_NULL: out"),
    handing_out(
        "lh_hex_to_base64", [] { return lh_hex_to_base64("ff", 2); }, "'/w=='", "malloc",
        "PTR_IS_NULL: out"),
};

// Bit fields --------------------------------------------------------------------------------------

constexpr unsigned char bits[] = {0x01, 0x02};

std::string hex_of(const lh_bf_t *bf)
{
    char hex[5];
    return lh_bf_stringize_hex(bf, hex, sizeof(hex)) == 0 ? shown(hex) : "no hex";
}

// Deliberate: a record without its bytes still comes back, and nothing releases it.
std::string allocate(Attempt &a)
{
    lh_bf_t *bf = a.faulted([] { return lh_bf_alloc(bits, sizeof(bits)); });
    if (bf != nullptr && bf->base == nullptr) {
        a.release(bf);
        return "a record without bytes";
    }
    const std::string outcome = bf == nullptr ? "null" : hex_of(bf);
    if (bf != nullptr)
        lh_bf_free(bf);
    return outcome;
}

// The answer, and the bits after it.
std::string then_bits(int result, const lh_bf_t *bf)
{
    return shown(result) + " " + hex_of(bf);
}

scenario of_bits(const char *function, const std::function<std::string(lh_bf_t *)> &call,
                 const std::string &outcome)
{
    return {.function = function,
            .body =
                [call](Attempt &a) {
                    lh_bf_t *bf = lh_bf_alloc(bits, sizeof(bits));
                    const std::string answer = a.faulted([&] { return call(bf); });
                    lh_bf_free(bf);
                    return answer;
                },
            .outcome = outcome};
}

std::string duplicate(Attempt &a)
{
    lh_bf_t *bf = lh_bf_alloc(bits, sizeof(bits));
    char *text = a.faulted([&] { return lh_bf_strdup(bf); });
    lh_bf_free(bf);
    return a.taken(text);
}

std::string free_it(Attempt &a)
{
    lh_bf_t *bf = lh_bf_alloc(bits, sizeof(bits));
    a.faulted([&] { lh_bf_free(bf); });
    return "";
}

std::string with_mask(lh_bf_t *bf)
{
    unsigned char first[] = {0xff};
    const lh_bf_t mask = {.base = first, .size = 1};
    bf->base[0] = 0x81;
    return then_bits(lh_bf_and(bf, &mask), bf);
}

std::string bit_9(lh_bf_t *bf)
{
    bool value = false;
    const int result = lh_bf_bit_get(bf, 9, &value);
    return shown(result) + " " + shown(value);
}

const std::vector<scenario> fields = {
    {.function = "lh_bf_alloc",
     .body = allocate,
     .outcome = "'0102'",
     .faults = {fails("malloc", "null", {"lh_bf_alloc: PTR_IS_NULL: bf"}),
                fails("calloc", "a record without bytes")}},
    {.function = "lh_bf_free", .body = free_it},
    {.function = "lh_bf_strdup",
     .body = duplicate,
     .outcome = "'1000000001000000'",
     .faults = {fails("calloc", "null", {"lh_bf_strdup: PTR_IS_NULL: str"})}},
    of_bits(
        "lh_bf_n_bits_get", [](lh_bf_t *bf) { return shown(lh_bf_n_bits_get(bf)); }, "16"),
    of_bits(
        "lh_bf_bit_out_of_range", [](lh_bf_t *bf) { return shown(lh_bf_bit_out_of_range(bf, 15)); },
        "0"),
    of_bits(
        "lh_bf_bit_set", [](lh_bf_t *bf) { return then_bits(lh_bf_bit_set(bf, 15), bf); },
        "0 '0182'"),
    of_bits(
        "lh_bf_bit_clear", [](lh_bf_t *bf) { return then_bits(lh_bf_bit_clear(bf, 9), bf); },
        "0 '0100'"),
    of_bits("lh_bf_bit_get", bit_9, "0 1"),
    of_bits(
        "lh_bf_str_size_get", [](lh_bf_t *bf) { return shown(lh_bf_str_size_get(bf)); }, "17"),
    of_bits(
        "lh_bf_hex_str_size_get", [](lh_bf_t *bf) { return shown(lh_bf_hex_str_size_get(bf)); },
        "5"),
    of_bits("lh_bf_stringize_hex", hex_of, "'0102'"),
    simply(
        "lh_bf_size_for_hex_str_get", [] { return shown(lh_bf_size_for_hex_str_get(5)); }, "2"),
    of_bits(
        "lh_bf_hex_str_parse",
        [](lh_bf_t *bf) { return then_bits(lh_bf_hex_str_parse(bf, "ff", 2), bf); }, "0 'ff02'"),
    of_bits(
        "lh_bf_is_dirty", [](lh_bf_t *bf) { return shown(lh_bf_is_dirty(bf)); }, "1"),
    of_bits(
        "lh_bf_popcount", [](lh_bf_t *bf) { return shown(lh_bf_popcount(bf)); }, "2"),
    of_bits("lh_bf_and", with_mask, "0 '8102'"),
    of_bits(
        "lh_bf_not", [](lh_bf_t *bf) { return then_bits(lh_bf_not(bf), bf); }, "0 'fefd'"),
    simply(
        "_lh_max_int_get", [] { return shown(_lh_max_int_get(3, 7, 5, -1)); }, "7"),
};

// Time strings ------------------------------------------------------------------------------------

std::string uptime()
{
    char text[16] = "";
    const int result = lh_str_form_uptime(90061, text, sizeof(text));
    return shown(result) + " " + shown(text);
}

std::string written()
{
    char text[32] = "";
    const tm time = {.tm_sec = 9,
                     .tm_min = 8,
                     .tm_hour = 7,
                     .tm_mday = 5,
                     .tm_mon = 2,
                     .tm_year = 124,
                     .tm_wday = 0,
                     .tm_yday = 0,
                     .tm_isdst = 0,
                     .tm_gmtoff = 0,
                     .tm_zone = nullptr};
    const int result = lh_strtime(text, sizeof(text), &time);
    return shown(result) + " " + shown(text);
}

std::string parsed()
{
    tm time = {};
    const int result = lh_strptime("2024-03-05 07:08:09", &time);
    return shown(result) + " " + shown(time.tm_year) + " " + shown(time.tm_sec);
}

const std::vector<scenario> times = {
    simply("lh_str_form_uptime", uptime, "0 '01,01:01:01'"),
    simply("lh_strtime", written, "0 '2024-03-05 07:08:09'"),
    simply("lh_strptime", parsed, "0 124 9"),
};

const bool swept = register_fault_sweep("FaultsOfStrings", strings) &&
                   register_fault_sweep("FaultsOfCodecs", codecs) &&
                   register_fault_sweep("FaultsOfBitFields", fields) &&
                   register_fault_sweep("FaultsOfTimeStrings", times);

} // namespace
