// Creating and copying files, and finding the program in a command line.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "core/handles.hpp"
#include "core/log.hpp"
#include "core/platform.hpp"
#include "lh_file.h"

using namespace vyt;

namespace {

constexpr size_t copy_block_size = 4096;
constexpr mode_t private_mode = 0600;
constexpr mode_t default_mode = 0664;

// Both halves of a copy report under its name.
constexpr const char *copier = "lh_copy_file";

int set_attributes(const unique_fd &copy, const char *dst_fname, const struct stat &st, mode_t mode)
{
    // Deliberate: the two times are crossed. The writing that follows renews the modification time,
    // and the source's one is kept as the time of access.
    const utimbuf times = {.actime = st.st_mtime, .modtime = st.st_atime};
    if (utime(dst_fname, &times) != 0) {
        LOG_ERROR_AS(copier, "utime failed (%s)", strerror(errno));
        return -1;
    }
    if (fchmod(copy.get(), mode) != 0) {
        LOG_ERROR_AS(copier, "fchmod failed (%s)", strerror(errno));
        return -1;
    }
    if (fchown(copy.get(), st.st_uid, st.st_gid) != 0) {
        // Deliberate: the line says fchmod here too, for those who search the log for it.
        LOG_ERROR_AS(copier, "fchmod failed (%s)", strerror(errno));
        return -1;
    }
    return 0;
}

int copy_contents(const unique_fd &from, const unique_fd &to)
{
    char block[copy_block_size];
    ssize_t size;
    do {
        size = read(from.get(), block, sizeof(block));
        if (size < 0) {
            LOG_ERROR_AS(copier, "read failed (%s)", strerror(errno));
            return -1;
        }
        if (write(to.get(), block, static_cast<size_t>(size)) == -1) {
            LOG_ERROR_AS(copier, "write failed (%s)", strerror(errno));
            return -1;
        }
    } while (static_cast<size_t>(size) == sizeof(block));
    return 0;
}

// The longest part of the text that names a file; the whole text when none does.
std::string_view existing_part(const char *path)
{
    const malloc_ptr<char> copy(strdup(path));
    char *copy_path = copy.get();
    if (PTR_IS_NULL_AS("lh_basename", copy_path, "copy_path"))
        return path;
    std::string_view part = path;
    while (!lh_file_is_exist(copy_path)) {
        const size_t cut = part.find_last_of(" /");
        if (cut == std::string_view::npos)
            return path;
        part = {part.data(), cut};
        copy_path[cut] = '\0';
    }
    return part;
}

// strlcpy of a text that may go on behind its end.
void copy_text(char *dst, size_t size, std::string_view text)
{
    strlcpy(dst, text.data(), std::min(size, text.size() + 1));
}

// The rules of the POSIX basename, which would cut the trailing slashes off in the text itself.
std::string_view without_trailing_slashes(std::string_view text)
{
    const size_t last = text.find_last_not_of('/');
    return last == std::string_view::npos ? text : std::string_view(text.data(), last + 1);
}

std::string_view last_component(std::string_view text)
{
    if (text.empty())
        return ".";
    if (text.back() == '/') // nothing but slashes
        return "/";
    text.remove_prefix(text.find_last_of('/') + 1); // npos + 1 is 0
    return text;
}

} // namespace

int lh_file_create(const char *path, mode_t mode)
{
    if (PTR_IS_NULL(path))
        return -1;
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd < 0) {
        LOG_ERROR("cannot open file '%s': %s", path, strerror(errno));
        return -1;
    }
    if (close(fd) != 0) {
        LOG_ERROR("cannot close file '%s': %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

int lh_file_permissions_add(const char *path, mode_t bits)
{
    if (PTR_IS_NULL(path))
        return -1;
    struct stat st;
    if (stat(path, &st) != 0) {
        LOG_ERROR("cannot stat file '%s': %s", path, strerror(errno));
        return -1;
    }
    if (chmod(path, st.st_mode | bits) != 0) {
        LOG_ERROR("cannot chmod file '%s': %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

int lh_copy_file(const char *src_fname, const char *dst_fname, mode_t mode)
{
    if (PTR_IS_NULL(src_fname) || PTR_IS_NULL(dst_fname))
        return -1;
    struct stat st;
    if (stat(src_fname, &st) != 0) {
        LOG_ERROR("stat failed (%s)", strerror(errno));
        return -1;
    }
    const unique_fd copy(open(dst_fname, O_WRONLY | O_CREAT | O_TRUNC, private_mode));
    if (!copy.is_open()) {
        LOG_ERROR("open file %s failed (%s)", dst_fname, strerror(errno));
        return -1;
    }
    if (set_attributes(copy, dst_fname, st, mode != 0 ? mode : st.st_mode) != 0)
        return -1;
    const unique_fd source(open(src_fname, O_RDONLY));
    if (!source.is_open()) {
        LOG_ERROR("open file %s (%s)", src_fname, strerror(errno));
        return -1;
    }
    return copy_contents(source, copy);
}

int lh_fast_copy_file(const char *src, const char *dst, mode_t mode, int sync)
{
    if (PTR_IS_NULL(src) || PTR_IS_NULL(dst))
        return -1;
    const unique_fd from(open(src, O_RDONLY));
    if (!from.is_open()) {
        LOG_ERROR("open file %s failed (%m)", src);
        return -1;
    }
    struct stat st;
    if (fstat(from.get(), &st) != 0) {
        LOG_ERROR("fstat of file '%s' failed (%m)", src);
        return -1;
    }
    const bool default_wanted = mode == 0 || mode == static_cast<mode_t>(-1);
    const unique_fd to(creat(dst, default_wanted ? default_mode : mode));
    if (!to.is_open()) {
        LOG_ERROR("open file %s failed (%m)", dst);
        return -1;
    }
    off_t offset = 0;
    const ssize_t size = sendfile(to.get(), from.get(), &offset, static_cast<size_t>(st.st_size));
    if (size < 0)
        LOG_ERROR("sendfile src:'%s', dst:'%s' failed (%m)", src, dst);
    else if (sync != 0)
        fsync(to.get());           // deliberate: whether it succeeds is not looked at
    return static_cast<int>(size); // one call moves less than 2 GiB
}

int lh_basename(const char *path, char *base, size_t base_size, char *prefix, size_t prefix_size)
{
    if (PTR_IS_NULL(path) || PTR_IS_NULL(base))
        return -1;
    const std::string_view part = without_trailing_slashes(existing_part(path));
    copy_text(base, base_size, last_component(part));
    if (prefix != nullptr)
        copy_text(prefix, prefix_size, part);
    return 0;
}
