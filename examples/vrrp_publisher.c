/*
 * vrrp_publisher: publishes instance states in the VRRP status file (vrrp_status_file.h). Either it
 * plays the VRRP daemon, step by step as a scenario file tells, in every way in which a writer may
 * replace a file (see --help for the words of a scenario and demo/failover.scenario for one); or it
 * follows the notifications of a real one (vrrp_notify.h).
 *
 * Build: cc -std=c11 vrrp_publisher.c vrrp_notify.c vrrp_scenario.c vrrp_status_file.c \
 *           -o vrrp_publisher
 */
#define _GNU_SOURCE 1

#include <getopt.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vrrp_notify.h"
#include "vrrp_scenario.h"
#include "vrrp_status_file.h"

static const char default_target[] = "/var/cache/vrrp_data";

static const char usage_line[] =
    "usage: vrrp_publisher [--step NUMBER | --follow] SCENARIO [FILE]\n"
    "       vrrp_publisher --notify FIFO -i NAME=NETNS:VRID:GROUP... [FILE]\n";

static const char help[] =
    "\n"
    "Plays the VRRP daemon: writes the records of each step of a scenario into FILE\n"
    "(/var/cache/vrrp_data unless named) and tells what it wrote. Waits for Enter before\n"
    "each step.\n"
    "\n"
    "  --step NUMBER  play this step (the first is 1) at once, and nothing else\n"
    "  --follow       only print the arguments with which vrrp_monitor follows what the\n"
    "                 scenario expects\n"
    "  --notify FIFO  publish what a real VRRP daemon tells through this FIFO, which is\n"
    "                 made if need be, and tell both; goes on until a signal ends it\n"
    "  -i NAME=NETNS:VRID:GROUP\n"
    "                 with --notify: the record of the instance that the daemon calls NAME;\n"
    "                 nothing before the first colon for the default namespace, group 0 for\n"
    "                 none; may be given again\n"
    "  -h, --help     show this text\n"
    "\n"
    "The VRRP daemon writes lines of the form INSTANCE \"NAME\" STATE PRIORITY, STATE being\n"
    "MASTER, BACKUP, FAULT, STOP or DELETED; other lines change nothing. Before the first\n"
    "line, after STOP and once the daemon has closed the FIFO an instance is Init.\n"
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
    "  remove-directory    the file and its directory\n"
    "\n"
    "Ends with 0 when all was written, with 1 when it could not be, with 2 for wrong\n"
    "arguments and for a mistake in the scenario.\n";

/* Telling ------------------------------------------------------------------------------------ */

static void tell_step(const struct scenario *scenario, size_t index)
{
    const struct step *step = &scenario->steps[index];
    printf("step %zu of %zu: %s\n", index + 1, scenario->count, step->title);
    printf("write: %s\n", way_name(step->way));
    status_file_tell(step->records, step->record_count);
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
    const struct step *step = &scenario->steps[index];
    if (!status_file_write(step->way, path, step->records, step->record_count))
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

struct arguments {
    int32_t only; /* the number of a step, or 0 for all */
    bool follow;
    const char *fifo;           /* null to play a scenario */
    struct notified *instances; /* room for one with every argument */
    size_t instance_count;
    const char *scenario;
    const char *file;
};

static int play(const struct arguments *arguments)
{
    struct scenario scenario = {.file = arguments->scenario};
    int status = 2;
    if (scenario_read(&scenario)) {
        if (arguments->follow)
            status = tell_followed(&scenario);
        else if (arguments->only == 0)
            status = play_all(&scenario, arguments->file);
        else if ((size_t)arguments->only <= scenario.count)
            status = play_step(&scenario, (size_t)arguments->only - 1, arguments->file);
        else
            fprintf(stderr, "vrrp_publisher: there is no step %d in %s: it has %zu\n",
                    arguments->only, scenario.file, scenario.count);
    }
    scenario_free(&scenario);
    return status;
}

/* Returns -1 to go on, else the exit status. */
static int take_option(struct arguments *arguments, int option)
{
    switch (option) {
    case 'h':
        fputs(usage_line, stdout);
        fputs(help, stdout);
        return 0;
    case 's':
        if (parse_number(optarg, 1, INT32_MAX, &arguments->only))
            return -1;
        fprintf(stderr, "vrrp_publisher: --step %s: steps are counted from 1\n", optarg);
        return usage();
    case 'f':
        arguments->follow = true;
        return -1;
    case 'n':
        arguments->fifo = optarg;
        return -1;
    case 'i':
        if (notified_parse(optarg, &arguments->instances[arguments->instance_count++]))
            return -1;
        fprintf(stderr,
                "vrrp_publisher: -i %s: an instance is NAME=NETNS:VRID:GROUP, the VRID from 1 to "
                "%d, the GROUP from 0 to %d\n",
                optarg, VRID_MAX, GROUP_MAX);
        return usage();
    default:
        return usage();
    }
}

/* As take_option(). */
static int parse_arguments(struct arguments *arguments, int argc, char **argv)
{
    static const struct option options[] = {{"step", required_argument, NULL, 's'},
                                            {"follow", no_argument, NULL, 'f'},
                                            {"notify", required_argument, NULL, 'n'},
                                            {"help", no_argument, NULL, 'h'},
                                            {NULL, 0, NULL, 0}};
    int option;
    while ((option = getopt_long(argc, argv, "+i:h", options, NULL)) != -1) {
        int status = take_option(arguments, option);
        if (status >= 0)
            return status;
    }
    bool plays = arguments->fifo == NULL;
    if (plays != (arguments->instance_count == 0) || /* each needs the other */
        (plays && optind == argc) || (!plays && (arguments->follow || arguments->only != 0)))
        return usage();
    if (plays)
        arguments->scenario = argv[optind++];
    int files_max = arguments->follow ? 0 : 1;
    if (argc - optind > files_max || (arguments->follow && arguments->only != 0))
        return usage();
    arguments->file = optind < argc ? argv[optind] : default_target;
    return -1;
}

int main(int argc, char **argv)
{
    struct arguments arguments = {.instances = calloc((size_t)argc, sizeof(struct notified))};
    if (arguments.instances == NULL) {
        perror("vrrp_publisher");
        return 1;
    }
    int status = parse_arguments(&arguments, argc, argv);
    if (status < 0 && arguments.fifo == NULL) {
        status = play(&arguments);
    } else if (status < 0) {
        notify_follow(arguments.fifo, arguments.instances, arguments.instance_count,
                      arguments.file);
        status = 1;
    }
    free(arguments.instances);
    return status;
}
