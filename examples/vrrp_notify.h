/*
 * Follows what a VRRP daemon says of its instances and keeps the status file like it. The daemon
 * writes a line for every change into a FIFO:
 *
 *   INSTANCE "NAME" MASTER|BACKUP|FAULT|STOP|DELETED PRIORITY
 */
#ifndef VRRP_NOTIFY_H
#define VRRP_NOTIFY_H

#include "vrrp_status_file.h"

/* An instance as the daemon calls it, and its record. */
struct notified {
    const char *name;
    size_t name_length;
    struct record record;
    bool deleted; /* from the daemon's configuration: it has no record in the file */
};

/* Reads "NAME=NETNS:VRID:GROUP". `text` has to outlive the instance. */
bool notified_parse(const char *text, struct notified *instance);

/* Goes on until something fails; the reason has been written to standard error then. */
void notify_follow(const char *fifo, struct notified *instances, size_t count, const char *path);

#endif
