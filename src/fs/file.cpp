#include "lh_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "lh_str.h"

using namespace vyt;

namespace {

constexpr size_t command_size = 512;

// 0, which is no file's mode, when there is no answer.
mode_t lh_file_mode(const char *path)
{
    if (PTR_IS_NULL(path))
        return 0;
    struct stat st;
    if (stat(path, &st) != 0) {
        LOG_ERROR("stat '%s' failed", path);
        return 0;
    }
    return st.st_mode;
}

// As the kernel answers, also for no path, which the C library does not allow to be asked.
int status_of(const char *path, struct stat *st)
{
    if (path != nullptr)
        return stat(path, st);
    errno = EFAULT;
    return -1;
}

} // namespace

int lh_file_is_exist(const char *path)
{
    if (PTR_IS_NULL(path))
        return 0;
    return access(path, F_OK) == 0;
}

int lh_file_is_dir(const char *path)
{
    return S_ISDIR(lh_file_mode(path));
}

int lh_file_is_lnk(const char *path)
{
    // Deliberate: the mode is that of what a link leads to, so the answer is always 0. Daemons take
    // a link for the file behind it.
    return S_ISLNK(lh_file_mode(path));
}

int lh_file_is_reg(const char *path)
{
    return S_ISREG(lh_file_mode(path));
}

int lh_file_is_empty(const char *path)
{
    if (PTR_IS_NULL(path))
        return 0;
    struct stat st;
    if (stat(path, &st) != 0) {
        LOG_ERROR("stat '%s' failed", path);
        return 0;
    }
    return st.st_size == 0;
}

size_t lh_file_size_get(const char *path)
{
    if (!lh_file_is_exist(path))
        return 0;
    struct stat st;
    if (stat(path, &st) != 0) {
        LOG_ERROR("stat '%s' failed", path);
        return 0;
    }
    return static_cast<size_t>(st.st_size);
}

unsigned int lh_file_get_inode(const char *path)
{
    struct stat st;
    return status_of(path, &st) == 0 ? static_cast<unsigned int>(st.st_ino) : 0;
}

unsigned int lh_file_get_mode(const char *path)
{
    struct stat st;
    return status_of(path, &st) == 0 ? st.st_mode : 0;
}

int lh_file_text_alloc(const char *path, char **text, size_t *text_size)
{
    if (PTR_IS_NULL(path) || PTR_IS_NULL(text) || PTR_IS_NULL(text_size))
        return -1;
    const size_t size = lh_file_size_get(path);
    if (size == 0) {
        LOG_ERROR("file '%s' is empty", path);
        return -1;
    }
    FILE *f = fopen(path, "r");
    if (PTR_IS_NULL(f)) {
        LOG_ERROR("fopen '%s' failed (%d)'%s'", path, errno, strerror(errno));
        return -1;
    }
    const unique_file file(f);
    *text_size = size + 1;
    *text = static_cast<char *>(malloc(size + 1));
    if (PTR_IS_NULL(*text))
        return -1;
    if (fread(*text, size, 1, f) != 1) {
        LOG_ERROR("fread '%s' failed (%d)'%s'", path, errno, strerror(errno));
        malloc_ptr<char>{*text}.reset(); // the caller's pointer is left as it is: a failed result
        return -1;
    }
    (*text)[size] = '\0';
    return 0;
}

int lh_file_read_line(const char *path, char *buf, size_t size)
{
    const unique_file file(fopen(path, "r"));
    if (!file) {
        const errno_saver saver;
        snprintf(buf, size, "%s", strerror(errno));
        return -1;
    }
    if (size == 0)
        return 0;
    const int limit = static_cast<int>(std::min(size, size_t{INT_MAX}));
    if (fgets(buf, limit, file.get()) == nullptr)
        buf[0] = '\0';
    else if (char *newline = strrchr(buf, '\n'); newline != nullptr)
        *newline = '\0';
    return 0;
}

int lh_file_write(const char *path, const void *data, size_t size)
{
    if (PTR_IS_NULL(path) || PTR_IS_NULL(data))
        return -1;
    // Deliberate: nothing to write leaves the file as it is, for the daemon with nothing to say.
    if (IS_EQ(0, size))
        return 0;
    unique_file file(fopen(path, "w"));
    if (!file) {
        LOG_ERROR("fopen '%s' failed: %s", path, strerror(errno));
        return -1;
    }
    const size_t nmemb = 1;
    const size_t written = fwrite(data, size, nmemb, file.get());
    file.reset(); // deliberate: whether closing succeeds is not looked at
    return IS_NE(nmemb, written) ? -1 : 0;
}

int lh_file_read(const char *path, void *data, size_t size)
{
    if (PTR_IS_NULL(path) || PTR_IS_NULL(data))
        return -1;
    if (IS_EQ(0, size))
        return 0;
    unique_file file(fopen(path, "r"));
    if (!file) {
        LOG_ERROR("fopen '%s' failed: %s", path, strerror(errno));
        return -1;
    }
    const size_t nmemb = 1;
    const size_t read = fread(data, size, nmemb, file.get());
    file.reset();
    return IS_NE(nmemb, read) ? -1 : 0;
}

int lh_file_scanf(const char *path, const char *fmt, ...)
{
    if (PTR_IS_NULL(path) || PTR_IS_NULL(fmt))
        return -1;
    FILE *f = fopen(path, "r");
    if (PTR_IS_NULL(f))
        return -1;
    va_list args;
    va_start(args, fmt);
    const int assigned = vfscanf(f, fmt, args);
    va_end(args);
    (void)CALL_FAILED(fclose(f));
    return assigned;
}

int lh_file_rm_nocheck(const char *path)
{
    if (PTR_IS_NULL(path))
        return -1;
    return unlink(path);
}

int lh_file_rm(const char *path)
{
    if (PTR_IS_NULL(path) || !lh_file_is_exist(path))
        return -1;
    return lh_file_rm_nocheck(path);
}

int lh_file_convert_to_unix_format(const char *path, const char *prepared_path)
{
    if (PTR_IS_NULL(path) || PTR_IS_NULL(prepared_path))
        return -1;
    if (IS_NOT(lh_file_is_exist(path)))
        return -1;
    char cmd[command_size] = {}; // a line may show it even when formatting failed
    if (_lh_snprintf(cmd, sizeof(cmd), "dos2unix -q %s", prepared_path) != 0)
        return -1;
    return CALL_FAILED(system(cmd)) ? -1 : 0;
}
