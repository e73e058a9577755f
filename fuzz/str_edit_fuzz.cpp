// The editors of strings. The input is the buffer's size, its string, a newline, then edits.
#include "lh_str.h"

#include <algorithm>

#include "fuzz/support/fuzz.hpp"

using namespace vyt::fuzz;

namespace {

bool is_printable(char ch)
{
    return ch >= 0x20 && ch <= 0x7e;
}

std::string invalid(const std::string &function, char ch)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%X", static_cast<unsigned char>(ch));
    return function + ": invalid char: " + text;
}

// A buffer under edit and what it must hold: a string, then zeros to the end.
class Edited {
  public:
    Edited(std::string text, size_t size) : text_(std::move(text)), buffer_(padded(size)) {}

    void check() { EXPECT_EQ(buffer_.bytes(), padded(buffer_.size())); }

    void insert(ptrdiff_t off, const std::string &src, size_t src_len)
    {
        off = std::min(off, static_cast<ptrdiff_t>(text_.size()));
        check_insert(off, src, src_len);
    }

    // A place that lies outside of the buffer.
    void insert_outside(ptrdiff_t distance, const std::string &src)
    {
        check_insert(distance < 0 ? distance : size() + distance, src, src.size());
    }

    void insert_chr(size_t off, char ch)
    {
        off = std::min(off, text_.size());
        const bool fits = text_.size() + 1 < buffer_.size();
        const bool done = is_printable(ch) && fits;
        EXPECT_EQ(lh_str_insert_chr(buffer_.data(), buffer_.size(), buffer_.data() + off, ch),
                  done ? 0 : -1);
        if (!is_printable(ch))
            EXPECT_LINES(invalid("lh_str_insert_chr", ch));
        else if (!fits)
            EXPECT_LINES(no_room(std::string(1, ch), 1));
        else
            text_.insert(off, 1, ch);
    }

    void replace(char from, char to)
    {
        if (from == '\0')
            return; // its own contract: the terminator goes
        lh_str_replace_symbol(buffer_.data(), from, to);
        if (to != '\0') {
            std::replace(text_.begin(), text_.end(), from, to);
        } else if (const size_t found = text_.find(from); found != std::string::npos) {
            // The string ends at the first one; the rest stays behind it, no longer zeros.
            EXPECT_EQ(buffer_.bytes().substr(found + 1, text_.size() - found - 1),
                      text_.substr(found + 1));
            text_.resize(found);
            memset(buffer_.data() + found, 0, buffer_.size() - found);
        }
    }

    void convert(size_t limit, bool upper)
    {
        (upper ? lh_str_toupper : lh_str_tolower)(buffer_.data(), limit);
        if (limit == 0)
            EXPECT_LINES(std::string(upper ? "lh_str_toupper" : "lh_str_tolower") +
                         ": IS_EQ check failed: 0 (0 == 0) !!!");
        for (size_t i = 0; i < std::min(limit, text_.size()); i++) {
            const char ch = text_[i];
            if (upper ? ch >= 'a' && ch <= 'z' : ch >= 'A' && ch <= 'Z')
                text_[i] = static_cast<char>(ch ^ 0x20);
        }
    }

    void count(char ch)
    {
        const std::string bytes = buffer_.bytes();
        EXPECT_EQ(lh_str_chr_cnt_get(buffer_.data(), buffer_.size(), ch),
                  static_cast<size_t>(std::count(bytes.begin(), bytes.end(), ch)));
    }

    const std::string &text() const { return text_; }

  private:
    ptrdiff_t size() const { return static_cast<ptrdiff_t>(buffer_.size()); }

    std::string padded(size_t size) const { return text_ + std::string(size - text_.size(), '\0'); }

    std::string no_room(const std::string &src, size_t n) const
    {
        return "lh_str_insert_str: not enough space for insert '" + src + "' into '" + text_ +
               "' (" + std::to_string(text_.size()) + " + " + std::to_string(n) +
               " >= " + std::to_string(buffer_.size()) + ")";
    }

    void check_insert(ptrdiff_t off, const std::string &src, size_t src_len)
    {
        const std::string inserted = c_text(src).substr(0, src_len);
        std::vector<std::string> lines;
        if (off < 0)
            lines = {"lh_str_insert_str: invalid pos: " + std::to_string(off) + " < 0"};
        else if (off >= size())
            lines = {"lh_str_insert_str: invalid pos: " + std::to_string(off) + " > " +
                     std::to_string(size() - 1)};
        else if (text_.size() + inserted.size() >= buffer_.size())
            lines = {no_room(c_text(src), inserted.size())};
        // What fits is not read behind its length; what does not is printed up to its terminator.
        Exact source = lines.empty() ? Exact(src.substr(0, src_len)) : Exact::text(src);
        if (lines.empty() && src_len > src.size())
            source = Exact::text(src);
        EXPECT_EQ(lh_str_insert_str(buffer_.data(), buffer_.size(), buffer_.data() + off,
                                    source.data(), src_len),
                  lines.empty() ? 0 : -1);
        EXPECT_EQ(vyt::test::take_lines(), lines);
        if (lines.empty())
            text_.insert(static_cast<size_t>(off), inserted);
    }

    std::string text_;
    Exact buffer_;
};

// A string without a terminator in its buffer takes nothing in.
void check_unterminated(const std::string &bytes)
{
    if (bytes.empty() || bytes.find('\0') != std::string::npos)
        return;
    Exact buffer(bytes);
    EXPECT_EQ(lh_str_insert_str(buffer.data(), buffer.size(), buffer.data(), "x", 1), -1);
    EXPECT_EQ(buffer.bytes(), bytes);
    EXPECT_LINES("lh_str_insert_str: '\\0' not found");
}

void check_insert_before_each(const std::string &text, const std::string &ins,
                              const std::string &chrs)
{
    std::string expected;
    for (const char ch : text)
        expected += (chrs.find(ch) != std::string::npos ? ins : "") + ch;
    const std::string checked = ins + chrs;
    const auto bad = std::find_if_not(checked.begin(), checked.end(), is_printable);
    const bool copied = bad == checked.end() && text.find_first_of(chrs) != std::string::npos;
    char untouched[] = "untouched";
    char *copy = untouched;
    EXPECT_EQ(lh_str_insert_str_before_each_of_chrs(Exact::text(text).data(),
                                                    Exact::text(ins).data(),
                                                    Exact::text(chrs).data(), &copy),
              bad == checked.end() ? 0 : -1);
    if (bad != checked.end())
        EXPECT_LINES(invalid("lh_str_insert_str_before_each_of_chrs", *bad));
    EXPECT_EQ(copy != untouched, copied);
    if (copy != untouched)
        EXPECT_EQ(take_text(copy), expected);
}

void edit(Edited &edited, Input &input)
{
    switch (input.below(8)) {
    case 0: {
        const auto off = static_cast<ptrdiff_t>(input.byte());
        const size_t src_len = input.below(40);
        return edited.insert(off, input.some(40), src_len);
    }
    case 1: {
        const auto distance = static_cast<ptrdiff_t>(input.byte());
        return edited.insert_outside(distance - 100, input.some(10));
    }
    case 2: {
        const size_t off = input.byte();
        return edited.insert_chr(off, static_cast<char>(input.byte()));
    }
    case 3: {
        const char from = static_cast<char>(input.byte());
        return edited.replace(from, static_cast<char>(input.byte()));
    }
    case 4:
        return edited.convert(input.below(100), true);
    case 5:
        return edited.convert(input.below(100), false);
    case 6:
        return edited.count(static_cast<char>(input.byte()));
    default: {
        const std::string ins = c_text(input.some(8));
        return check_insert_before_each(edited.text(), ins, c_text(input.some(20)));
    }
    }
}

} // namespace

void vyt::fuzz::prepare() {}

void vyt::fuzz::run(Input input)
{
    const size_t room = input.below(64);
    const std::string text = input.line();
    check_unterminated(text);
    Edited edited(c_text(text), c_text(text).size() + 1 + room);
    while (!input.is_empty()) {
        edit(edited, input);
        edited.check();
    }
}
