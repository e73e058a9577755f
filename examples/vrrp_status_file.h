/*
 * Writes the VRRP status file, in every way in which a writer may replace a file. It is an array of
 * records of 576 bytes in native byte order:
 *
 *   offset   0  int32     Virtual Router Id
 *   offset 472  int32     state: 0 init, 1 backup, 2 master, 3 fault
 *   offset 496  int32     group, 0 for none
 *   offset 521  char[55]  network namespace, terminated; empty for the default one
 */
#ifndef VRRP_STATUS_FILE_H
#define VRRP_STATUS_FILE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

enum { NETNS_SIZE = 55 }; /* room for a namespace's name in a record */

enum state { STATE_INIT, STATE_BACKUP, STATE_MASTER, STATE_FAULT, STATE_COUNT };

enum way {
    WAY_RENAME, /* a real publisher's: its readers never see half of a file */
    WAY_IN_PLACE,
    WAY_TRUNCATE,
    WAY_RECREATE,
    WAY_RECREATE_DIRECTORY,
    WAY_DELETE, /* this and the later ones take away: they have no records */
    WAY_REMOVE_DIRECTORY,
    WAY_COUNT
};

struct record {
    char netns[NETNS_SIZE];
    int32_t vrid;
    int32_t state; /* an enum state, or a number that a reader is to survive */
    int32_t group;
};

/* Makes these records the whole file. On false the reason has been written to standard error. */
bool status_file_write(enum way way, const char *path, const struct record *records, size_t count);

/* Says on standard error what could not be done to which file, and why (errno). Always false. */
bool status_file_failed(const char *doing, const char *path);

/* Prints a line for each record, instances spelled as vrrp_monitor spells them: NETNS:VRID. */
void status_file_tell(const struct record *records, size_t count);

/* "Init" to "Fault"; null for a number that means no state. */
const char *state_name(int32_t state);

#endif
