// Plain scanning of a text, a character at a time, as the C library's scanf does it.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <optional>
#include <string>

namespace vyt::fuzz {

class Scan {
  public:
    explicit Scan(std::string text) : text_(std::move(text)) {}

    void skip_blanks()
    {
        while (at_ < text_.size() && is_blank(text_[at_]))
            at_++;
    }

    bool skip(char ch)
    {
        const bool found = at_ < text_.size() && text_[at_] == ch;
        at_ += found;
        return found;
    }

    // "%4s" with max 4; nothing at the end of the text.
    std::optional<std::string> word(size_t max)
    {
        skip_blanks();
        std::string word;
        while (at_ < text_.size() && word.size() < max && !is_blank(text_[at_]))
            word += text_[at_++];
        return word.empty() ? std::nullopt : std::optional(word);
    }

    // "%d"
    std::optional<int> number()
    {
        skip_blanks();
        const std::string digits = sign() + digits_of("0123456789");
        if (!has_digit(digits))
            return std::nullopt;
        return static_cast<int>(strtol(digits.c_str(), nullptr, 10));
    }

    // "%x"; "0x" alone is a zero to the C library.
    std::optional<unsigned> hex_number()
    {
        skip_blanks();
        std::string digits = sign();
        if (skip('0')) {
            digits += '0';
            if (!skip('x'))
                skip('X');
        }
        digits += digits_of("0123456789abcdefABCDEF");
        if (!has_digit(digits))
            return std::nullopt;
        return static_cast<unsigned>(strtoul(digits.c_str(), nullptr, 16));
    }

  private:
    static bool is_blank(char ch) { return ch == ' ' || (ch >= '\t' && ch <= '\r'); }
    static bool has_digit(const std::string &digits)
    {
        return !digits.empty() && digits != "-" && digits != "+";
    }

    std::string sign() { return skip('-') ? "-" : skip('+') ? "+" : ""; }

    std::string digits_of(const char *set)
    {
        const size_t end = std::min(text_.find_first_not_of(set, at_), text_.size());
        const std::string digits = text_.substr(at_, end - at_);
        at_ = end;
        return digits;
    }

    std::string text_;
    size_t at_ = 0;
};

} // namespace vyt::fuzz
