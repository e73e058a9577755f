/* Follows the notifications of a VRRP daemon. */
#define _GNU_SOURCE 1

#include "vrrp_notify.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vrrp_scenario.h"

static const struct {
    const char *word;
    int32_t state;
} told_states[] = {
    {"MASTER", STATE_MASTER},
    {"BACKUP", STATE_BACKUP},
    {"FAULT", STATE_FAULT},
    {"STOP", STATE_INIT},
};

/* What stands between the colons, behind the name. */
static bool parse_place(const char *text, struct record *record)
{
    char place[NETNS_SIZE + 32];
    size_t length = strlen(text);
    if (length >= sizeof(place))
        return false;
    memcpy(place, text, length + 1);

    /* From the end: a namespace's name may have colons. */
    char *group = strrchr(place, ':');
    if (group == NULL)
        return false;
    *group++ = '\0';
    char *vrid = strrchr(place, ':');
    if (vrid == NULL || vrid - place >= NETNS_SIZE)
        return false;
    *vrid++ = '\0';
    memcpy(record->netns, place, (size_t)(vrid - place)); /* it fits, as just seen */
    return parse_number(vrid, 1, VRID_MAX, &record->vrid) &&
           parse_number(group, 0, GROUP_MAX, &record->group);
}

bool notified_parse(const char *text, struct notified *instance)
{
    const char *equals = strchr(text, '=');
    if (equals == NULL || equals == text)
        return false;
    *instance = (struct notified){.name = text, .name_length = (size_t)(equals - text)};
    return parse_place(equals + 1, &instance->record);
}

static bool publish(const struct notified *instances, size_t count, const char *path)
{
    /* There is at least one. NOLINTNEXTLINE(clang-analyzer-optin.portability.UnixAPI) */
    struct record *records = calloc(count, sizeof(*records));
    size_t published = 0;
    if (records == NULL)
        return status_file_failed("write", path);
    for (size_t i = 0; i < count; i++) {
        if (!instances[i].deleted)
            records[published++] = instances[i].record;
    }
    bool done = status_file_write(WAY_RENAME, path, records, published);
    if (done)
        status_file_tell(records, published);
    fflush(stdout);
    free(records);
    return done;
}

/* Takes in one line; false for one that changes nothing: of another kind, another instance, or only
   telling a priority. */
static bool take_in(char *line, struct notified *instances, size_t count)
{
    static const char begin[] = "INSTANCE \"";
    if (strncmp(line, begin, strlen(begin)) != 0)
        return false;
    const char *name = line + strlen(begin);
    size_t length = strcspn(name, "\"");
    if (name[length] == '\0')
        return false;

    struct notified *it = NULL;
    for (size_t i = 0; i < count; i++) {
        if (instances[i].name_length == length && memcmp(instances[i].name, name, length) == 0)
            it = &instances[i];
    }
    char *rest;
    const char *state = strtok_r(line + strlen(begin) + length + 1, " \n", &rest);
    if (it == NULL || state == NULL)
        return false;
    if (strcmp(state, "DELETED") == 0) {
        it->deleted = true;
        return true;
    }
    for (size_t i = 0; i < sizeof(told_states) / sizeof(told_states[0]); i++) {
        if (strcmp(state, told_states[i].word) == 0) {
            it->record.state = told_states[i].state;
            it->deleted = false;
            return true;
        }
    }
    return false;
}

/* Reads until the last writer has closed the FIFO. */
static bool follow_lines(FILE *lines, struct notified *instances, size_t count, const char *path)
{
    char *line = NULL;
    size_t size = 0;
    bool good = true;
    while (good && getline(&line, &size, lines) >= 0) {
        printf("told: %s%s", line, strchr(line, '\n') != NULL ? "" : "\n");
        fflush(stdout);
        if (take_in(line, instances, count))
            good = publish(instances, count, path);
    }
    free(line);
    return good;
}

/* A daemon that has gone without a word, or is yet to come, has no instance that runs. */
static bool publish_nothing_runs(struct notified *instances, size_t count, const char *path)
{
    for (size_t i = 0; i < count; i++) {
        instances[i].record.state = STATE_INIT;
        instances[i].deleted = false;
    }
    return publish(instances, count, path);
}

static bool is_fifo(const char *path)
{
    struct stat info;
    if (mkfifo(path, 0600) != 0 && errno != EEXIST)
        return status_file_failed("make", path);
    if (stat(path, &info) == 0 && S_ISFIFO(info.st_mode))
        return true;
    fprintf(stderr, "vrrp_publisher: %s is no FIFO\n", path);
    return false;
}

/* Waits until a writer has written something or has come and gone, and answers a stream to read it
   from. Opening for reading alone would miss a writer that was faster: so the FIFO is opened without
   waiting for one, and closed only when it is open anew, because what it holds would go with it. */
static FILE *wait_for_writer(const char *fifo, FILE *before)
{
    int fd = open(fifo, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    int error = errno;
    if (before != NULL)
        fclose(before);
    errno = error;
    if (fd < 0)
        return NULL;
    struct pollfd readable = {.fd = fd, .events = POLLIN};
    FILE *lines = NULL;
    if (poll(&readable, 1, -1) >= 0 && fcntl(fd, F_SETFL, 0) == 0)
        lines = fdopen(fd, "r");
    if (lines == NULL) {
        error = errno;
        close(fd);
        errno = error;
    }
    return lines;
}

void notify_follow(const char *fifo, struct notified *instances, size_t count, const char *path)
{
    FILE *lines = NULL;
    bool good = is_fifo(fifo);
    while (good && publish_nothing_runs(instances, count, path)) {
        lines = wait_for_writer(fifo, lines);
        good = lines != NULL ? follow_lines(lines, instances, count, path)
                             : status_file_failed("read", fifo);
    }
    if (lines != NULL)
        fclose(lines);
}
