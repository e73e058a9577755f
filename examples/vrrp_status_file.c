/* Writes the VRRP status file. */
#define _GNU_SOURCE 1

#include "vrrp_status_file.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { RECORD_SIZE = 576, VRID_AT = 0, STATE_AT = 472, GROUP_AT = 496, NETNS_AT = 521 };

bool status_file_failed(const char *doing, const char *path)
{
    fprintf(stderr, "vrrp_publisher: cannot %s %s: %s\n", doing, path, strerror(errno));
    return false;
}

static bool write_all(int fd, const char *bytes, size_t length)
{
    while (length > 0) {
        ssize_t written = write(fd, bytes, length);
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0) {
            bytes += written;
            length -= (size_t)written;
        }
    }
    return true;
}

/* Opens with these flags, writes, and cuts off what an older, longer file had behind it. */
static bool write_with(int flags, const char *path, const char *bytes, size_t length)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    if (fd < 0)
        return status_file_failed("open", path);
    bool done = write_all(fd, bytes, length) && ftruncate(fd, (off_t)length) == 0;
    if (close(fd) != 0 || !done)
        return status_file_failed("write", path);
    return true;
}

static bool write_in_place(const char *path, const char *bytes, size_t length)
{
    return write_with(0, path, bytes, length);
}

static bool truncate_and_write(const char *path, const char *bytes, size_t length)
{
    return write_with(O_TRUNC, path, bytes, length);
}

static bool write_aside_and_rename(const char *path, const char *bytes, size_t length)
{
    char *aside;
    if (asprintf(&aside, "%s.new", path) < 0)
        return status_file_failed("write", path);
    bool done = write_with(O_TRUNC, aside, bytes, length);
    if (done && rename(aside, path) != 0)
        done = status_file_failed("replace", path);
    if (!done)
        unlink(aside);
    free(aside);
    return done;
}

static bool delete_file(const char *path, const char *bytes, size_t length)
{
    (void)bytes;
    (void)length;
    if (unlink(path) != 0 && errno != ENOENT && errno != ENOTDIR)
        return status_file_failed("delete", path);
    return true;
}

static bool recreate(const char *path, const char *bytes, size_t length)
{
    return delete_file(path, NULL, 0) && write_with(O_EXCL, path, bytes, length);
}

static bool remove_directory(const char *path, const char *bytes, size_t length)
{
    char *copy = strdup(path);
    bool done = copy != NULL && delete_file(path, bytes, length);
    if (done && rmdir(dirname(copy)) != 0 && errno != ENOENT)
        done = status_file_failed("remove", copy);
    free(copy);
    return done;
}

/* A follower may make the directory, too, and be faster. */
static bool make_directory(const char *path)
{
    char *copy = strdup(path);
    bool done = copy != NULL;
    if (done && mkdir(dirname(copy), 0755) != 0 && errno != EEXIST)
        done = status_file_failed("make", copy);
    free(copy);
    return done;
}

static bool recreate_directory(const char *path, const char *bytes, size_t length)
{
    return remove_directory(path, NULL, 0) && make_directory(path) &&
           write_with(O_EXCL, path, bytes, length);
}

static bool (*const replace[WAY_COUNT])(const char *path, const char *bytes, size_t length) = {
    [WAY_RENAME] = write_aside_and_rename,         [WAY_IN_PLACE] = write_in_place,
    [WAY_TRUNCATE] = truncate_and_write,           [WAY_RECREATE] = recreate,
    [WAY_RECREATE_DIRECTORY] = recreate_directory, [WAY_DELETE] = delete_file,
    [WAY_REMOVE_DIRECTORY] = remove_directory,
};

static void put_number(char *record, size_t offset, int32_t number)
{
    memcpy(record + offset, &number, sizeof(number));
}

bool status_file_write(enum way way, const char *path, const struct record *records, size_t count)
{
    char *bytes = calloc(count + 1, RECORD_SIZE);
    if (bytes == NULL)
        return status_file_failed("write", path);
    for (size_t i = 0; i < count; i++) {
        char *record = bytes + i * RECORD_SIZE;
        put_number(record, VRID_AT, records[i].vrid);
        put_number(record, STATE_AT, records[i].state);
        put_number(record, GROUP_AT, records[i].group);
        memcpy(record + NETNS_AT, records[i].netns, NETNS_SIZE);
    }
    bool done = (way >= WAY_DELETE || make_directory(path)) &&
                replace[way](path, bytes, count * RECORD_SIZE);
    free(bytes);
    return done;
}

const char *state_name(int32_t state)
{
    static const char *const names[STATE_COUNT] = {"Init", "Backup", "Master", "Fault"};
    return state >= 0 && state < STATE_COUNT ? names[state] : NULL;
}

void status_file_tell(const struct record *records, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        const char *state = state_name(records[i].state);
        printf("file: %s:%d ", records[i].netns, records[i].vrid);
        if (state != NULL)
            printf("%s", state);
        else
            printf("state %d", records[i].state);
        if (records[i].group != 0)
            printf(" group %d", records[i].group);
        putchar('\n');
    }
}
