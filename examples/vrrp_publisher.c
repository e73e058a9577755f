/*
 * vrrp_publisher: plays the VRRP daemon. It publishes instance states in a status file, step by
 * step as a scenario file tells, in every way in which a writer may replace a file. See --help for
 * the words of a scenario and demo/failover.scenario for one.
 *
 * The status file is an array of records of 576 bytes in native byte order:
 *
 *   offset   0  int32     Virtual Router Id
 *   offset 472  int32     state: 0 init, 1 backup, 2 master, 3 fault
 *   offset 496  int32     group, 0 for none
 *   offset 521  char[55]  network namespace, terminated; empty for the default one
 *
 * A real publisher takes the way "rename": its readers never see half of a file.
 *
 * Build: cc -std=c11 vrrp_publisher.c vrrp_scenario.c -o vrrp_publisher
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <libgen.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vrrp_scenario.h"

enum { RECORD_SIZE = 576, VRID_AT = 0, STATE_AT = 472, GROUP_AT = 496, NETNS_AT = 521 };

static const char default_target[] = "/var/cache/vrrp_data";

static const char usage_line[] =
    "usage: vrrp_publisher [--step NUMBER | --follow] SCENARIO [FILE]\n";

static const char help[] =
    "\n"
    "Plays the VRRP daemon: writes the records of each step of a scenario into FILE\n"
    "(/var/cache/vrrp_data unless named) and tells what it wrote. Waits for Enter before\n"
    "each step.\n"
    "\n"
    "  --step NUMBER  play this step (the first is 1) at once, and nothing else\n"
    "  --follow       only print the arguments with which vrrp_monitor follows what the\n"
    "                 scenario expects\n"
    "  -h, --help     show this text\n"
    "\n"
    "A scenario is made of lines of words; '#' starts a comment. Each step names the\n"
    "whole contents of the file:\n"
    "\n"
    "  step A title of any words\n"
    "  write WAY\n"
    "  record NETNS VRID STATE GROUP      NETNS '-' is the default namespace; STATE is\n"
    "                                     Init, Backup, Master, Fault or a number; GROUP\n"
    "                                     0 is none. Numbers out of range are written\n"
    "                                     as they are.\n"
    "  expect group GROUP STATUS          what a follower sees in the end: Unknown, Init,\n"
    "  expect instance NETNS VRID STATUS  Backup, Master or Fault\n"
    "\n"
    "The ways to write:\n"
    "  rename              written aside and renamed into place; the one to choose\n"
    "  in-place            written over what is there\n"
    "  truncate            emptied, then written\n"
    "  recreate            deleted, then created\n"
    "  recreate-directory  the directory removed and made again, then the file created\n"
    "and to take away, without records:\n"
    "  delete              the file\n"
    "  remove-directory    the file and its directory\n";

static bool failed(const char *doing, const char *path)
{
    fprintf(stderr, "vrrp_publisher: cannot %s %s: %s\n", doing, path, strerror(errno));
    return false;
}

/* Writing ------------------------------------------------------------------------------------ */

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
        return failed("open", path);
    bool done = write_all(fd, bytes, length) && ftruncate(fd, (off_t)length) == 0;
    if (close(fd) != 0 || !done)
        return failed("write", path);
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
        return failed("write", path);
    bool done = write_with(O_TRUNC, aside, bytes, length);
    if (done && rename(aside, path) != 0)
        done = failed("replace", path);
    free(aside);
    return done;
}

static bool delete_file(const char *path, const char *bytes, size_t length)
{
    (void)bytes;
    (void)length;
    if (unlink(path) != 0 && errno != ENOENT && errno != ENOTDIR)
        return failed("delete", path);
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
        done = failed("remove", copy);
    free(copy);
    return done;
}

/* A follower may make the directory, too, and be faster. */
static bool make_directory(const char *path)
{
    char *copy = strdup(path);
    bool done = copy != NULL;
    if (done && mkdir(dirname(copy), 0755) != 0 && errno != EEXIST)
        done = failed("make", copy);
    free(copy);
    return done;
}

static bool recreate_directory(const char *path, const char *bytes, size_t length)
{
    return remove_directory(path, NULL, 0) && make_directory(path) &&
           write_with(O_EXCL, path, bytes, length);
}

static bool (*const play[WAY_COUNT])(const char *path, const char *bytes, size_t length) = {
    [WAY_RENAME] = write_aside_and_rename,         [WAY_IN_PLACE] = write_in_place,
    [WAY_TRUNCATE] = truncate_and_write,           [WAY_RECREATE] = recreate,
    [WAY_RECREATE_DIRECTORY] = recreate_directory, [WAY_DELETE] = delete_file,
    [WAY_REMOVE_DIRECTORY] = remove_directory,
};

static void put_number(char *record, size_t offset, int32_t number)
{
    memcpy(record + offset, &number, sizeof(number));
}

static bool write_step(const struct step *step, const char *path)
{
    char *bytes = calloc(step->record_count + 1, RECORD_SIZE);
    if (bytes == NULL)
        return failed("write", path);
    for (size_t i = 0; i < step->record_count; i++) {
        char *record = bytes + i * RECORD_SIZE;
        put_number(record, VRID_AT, step->records[i].vrid);
        put_number(record, STATE_AT, step->records[i].state);
        put_number(record, GROUP_AT, step->records[i].group);
        memcpy(record + NETNS_AT, step->records[i].netns, NETNS_SIZE);
    }
    bool done = (step->way >= WAY_DELETE || make_directory(path)) &&
                play[step->way](path, bytes, step->record_count * RECORD_SIZE);
    free(bytes);
    return done;
}

/* Telling ------------------------------------------------------------------------------------ */

/* Instances are told as vrrp_monitor spells them, NETNS:VRID. */
static void tell_step(const struct scenario *scenario, size_t index)
{
    const struct step *step = &scenario->steps[index];
    printf("step %zu of %zu: %s\n", index + 1, scenario->count, step->title);
    printf("write: %s\n", way_name(step->way));
    for (size_t i = 0; i < step->record_count; i++) {
        const struct record *record = &step->records[i];
        printf("file: %s:%d ", record->netns, record->vrid);
        const char *state = state_name(record->state);
        if (state != NULL)
            printf("%s", state);
        else
            printf("state %d", record->state);
        if (record->group != 0)
            printf(" group %d", record->group);
        putchar('\n');
    }
    for (size_t i = 0; i < step->expectation_count; i++) {
        const struct expectation *it = &step->expectations[i];
        if (it->group != 0)
            printf("expect: group %d %s\n", it->group, it->status);
        else
            printf("expect: instance %s:%d %s\n", it->netns, it->vrid, it->status);
    }
    fflush(stdout);
}

static bool is_same(const struct expectation *a, const struct expectation *b)
{
    return a->group == b->group && a->vrid == b->vrid && strcmp(a->netns, b->netns) == 0;
}

/* Was this thing expected before, by an earlier step or earlier in this one? */
static bool is_told(const struct scenario *scenario, size_t step, size_t index)
{
    const struct expectation *it = &scenario->steps[step].expectations[index];
    for (size_t i = 0; i <= step; i++) {
        size_t count = i < step ? scenario->steps[i].expectation_count : index;
        for (size_t j = 0; j < count; j++) {
            if (is_same(&scenario->steps[i].expectations[j], it))
                return true;
        }
    }
    return false;
}

static int tell_followed(const struct scenario *scenario)
{
    const char *space = "";
    for (size_t i = 0; i < scenario->count; i++) {
        for (size_t j = 0; j < scenario->steps[i].expectation_count; j++) {
            const struct expectation *it = &scenario->steps[i].expectations[j];
            if (is_told(scenario, i, j))
                continue;
            if (it->group != 0)
                printf("%s-g %d", space, it->group);
            else
                printf("%s-i %s:%d", space, it->netns, it->vrid);
            space = " ";
        }
    }
    putchar('\n');
    return 0;
}

/* Playing ------------------------------------------------------------------------------------ */

static int play_step(const struct scenario *scenario, size_t index, const char *path)
{
    if (!write_step(&scenario->steps[index], path))
        return 1;
    tell_step(scenario, index);
    return 0;
}

/* False at the end of the input. */
static bool wait_for_enter(const char *title)
{
    int c;
    if (isatty(STDIN_FILENO))
        fprintf(stderr, "Enter: %s ", title);
    while ((c = getchar()) != '\n') {
        if (c == EOF)
            return false;
    }
    return true;
}

static int play_all(const struct scenario *scenario, const char *path)
{
    for (size_t i = 0; i < scenario->count && wait_for_enter(scenario->steps[i].title); i++) {
        if (play_step(scenario, i, path) != 0)
            return 1;
    }
    return 0;
}

static int usage(void)
{
    fputs(usage_line, stderr);
    return 2;
}

int main(int argc, char **argv)
{
    static const struct option options[] = {{"step", required_argument, NULL, 's'},
                                            {"follow", no_argument, NULL, 'f'},
                                            {"help", no_argument, NULL, 'h'},
                                            {NULL, 0, NULL, 0}};
    int32_t only = 0; /* 0 for all */
    bool follow = false;
    int option;

    while ((option = getopt_long(argc, argv, "+h", options, NULL)) != -1) {
        if (option == 'h') {
            fputs(usage_line, stdout);
            fputs(help, stdout);
            return 0;
        }
        if (option == 's' && !parse_number(optarg, 1, INT32_MAX, &only)) {
            fprintf(stderr, "vrrp_publisher: --step %s: steps are counted from 1\n", optarg);
            return usage();
        }
        if (option == '?')
            return usage();
        follow = follow || option == 'f';
    }
    if (optind == argc || argc - optind > 2 || (follow && (only != 0 || argc - optind > 1)))
        return usage();

    struct scenario scenario = {.file = argv[optind]};
    const char *path = optind + 1 < argc ? argv[optind + 1] : default_target;
    int status = 2;
    if (scenario_read(&scenario)) {
        if (follow)
            status = tell_followed(&scenario);
        else if (only == 0)
            status = play_all(&scenario, path);
        else if ((size_t)only <= scenario.count)
            status = play_step(&scenario, (size_t)only - 1, path);
        else
            fprintf(stderr, "vrrp_publisher: there is no step %d in %s: it has %zu\n", only,
                    scenario.file, scenario.count);
    }
    scenario_free(&scenario);
    return status;
}
