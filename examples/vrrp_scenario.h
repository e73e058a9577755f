/*
 * The scenarios that vrrp_publisher plays: steps, each with the whole contents of the status file,
 * the way to write it, and what a follower sees in the end.
 */
#ifndef VRRP_SCENARIO_H
#define VRRP_SCENARIO_H

#include "vrrp_status_file.h"

enum { GROUP_MAX = 32, VRID_MAX = 255 };

/* The status of a group, or of an instance when group is 0. */
struct expectation {
    int32_t group;
    char netns[NETNS_SIZE];
    int32_t vrid;
    const char *status;
};

struct step {
    char *title;
    enum way way; /* WAY_COUNT until the scenario has named it */
    struct record *records;
    size_t record_count;
    struct expectation *expectations;
    size_t expectation_count;
};

struct scenario {
    const char *file;
    size_t line; /* the last one that was read */
    struct step *steps;
    size_t count;
};

/* Reads the scenario that `file` names. On false the reason has been written to standard error. */
bool scenario_read(struct scenario *scenario);
void scenario_free(struct scenario *scenario);

const char *way_name(enum way way);
/* Reads a whole decimal number from min to max. */
bool parse_number(const char *word, long min, long max, int32_t *number);

#endif
