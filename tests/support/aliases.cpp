#include "support/aliases.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace vyt::test {
namespace {

// What the library calls instead, and what that passes the arguments on to: the plain name's wrapper.
struct alias {
    const char *symbol;
    const char *name;
    void *entry;
    void *wrapper = nullptr;
};

alias *find_alias(const std::string &symbol);

// Looked up once: the calls of some tests come from several threads.
#define WRAPPER(symbol, function)                                                                  \
    ([] {                                                                                          \
        static const alias *const known = find_alias(#symbol);                                     \
        return reinterpret_cast<function>(known->wrapper);                                         \
    }())

// As the C library does where an object is smaller than what is written to it.
void must_fit(size_t size, size_t room)
{
    if (size > room)
        abort();
}

// Variable arguments cannot be passed on, only the text that they make.
class Text {
  public:
    Text(const char *format, va_list args)
    {
        if (vasprintf(&text_, format, args) < 0)
            abort();
    }
    ~Text() { free(text_); }
    Text(const Text &) = delete;
    Text &operator=(const Text &) = delete;
    const char *get() const { return text_; }

  private:
    char *text_ = nullptr;
};

int enter_vsnprintf_chk(char *s, size_t n, int, size_t room, const char *format, va_list args)
{
    must_fit(n, room);
    return WRAPPER(__vsnprintf_chk, decltype(&vsnprintf))(s, n, format, args);
}

int enter_vasprintf_chk(char **s, int, const char *format, va_list args)
{
    return WRAPPER(__vasprintf_chk, decltype(&vasprintf))(s, format, args);
}

int enter_snprintf_chk(char *s, size_t n, int, size_t room, const char *format, ...)
{
    must_fit(n, room);
    va_list args;
    va_start(args, format);
    const Text text(format, args);
    va_end(args);
    return WRAPPER(__snprintf_chk, decltype(&snprintf))(s, n, "%s", text.get());
}

int enter_asprintf_chk(char **s, int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const Text text(format, args);
    va_end(args);
    return WRAPPER(__asprintf_chk, decltype(&asprintf))(s, "%s", text.get());
}

int enter_fprintf_chk(FILE *file, int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const Text text(format, args);
    va_end(args);
    return WRAPPER(__fprintf_chk, decltype(&fprintf))(file, "%s", text.get());
}

size_t enter_fread_chk(void *data, size_t room, size_t size, size_t count, FILE *file)
{
    must_fit(size * count, room);
    return WRAPPER(__fread_chk, decltype(&fread))(data, size, count, file);
}

ssize_t enter_read_chk(int fd, void *data, size_t size, size_t room)
{
    must_fit(size, room);
    return WRAPPER(__read_chk, ssize_t(*)(int, void *, size_t))(fd, data, size);
}

ssize_t enter_getdelim(char **line, size_t *size, int delimiter, FILE *file)
{
    if (delimiter != '\n')
        abort();
    return WRAPPER(__getdelim, decltype(&getline))(line, size, file);
}
#undef WRAPPER

#define CHECKED(call)                                                                              \
    {                                                                                              \
        .symbol = "__" #call "_chk", .name = #call,                                                \
        .entry = reinterpret_cast<void *>(enter_##call##_chk)                                      \
    }

alias aliases[] = {
    CHECKED(vsnprintf),
    CHECKED(vasprintf),
    CHECKED(snprintf),
    CHECKED(asprintf),
    CHECKED(fprintf),
    CHECKED(fread),
    CHECKED(read),
    // Clang takes <stdio.h> at its word, which defines getline by it.
    {.symbol = "__getdelim", .name = "getline", .entry = reinterpret_cast<void *>(enter_getdelim)},
};
#undef CHECKED

alias *find_alias(const std::string &symbol)
{
    for (alias &known : aliases) {
        if (symbol == known.symbol)
            return &known;
    }
    return nullptr;
}

} // namespace

std::string plain_name(const std::string &symbol)
{
    if (const alias *known = find_alias(symbol))
        return known->name;
    // One that is not known yet: entry_of says so, where the call is one that is watched.
    if (symbol.starts_with("__") && symbol.ends_with("_chk"))
        return symbol.substr(2, symbol.size() - 6);
    return symbol;
}

void *entry_of(const std::string &symbol, void *wrapper)
{
    if (symbol == plain_name(symbol))
        return wrapper;
    alias *known = find_alias(symbol);
    if (known == nullptr)
        throw std::runtime_error("aliases.cpp does not know the symbol " + symbol);
    known->wrapper = wrapper;
    return known->entry;
}

} // namespace vyt::test
