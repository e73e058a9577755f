/*
 * A small live table on a terminal: one row for each thing that vrrp_monitor follows, the last lines
 * of standard error below. To be used by a poll loop:
 *
 *   if (table_is_possible() && table_open(&table) == 0) {
 *       ... poll table.log_fd, call table_take_log() when it is readable
 *       ... table_draw() after each change and once a second; it fails when the terminal has gone
 *       table_close(&table);
 *   }
 */
#ifndef VRRP_TABLE_H
#define VRRP_TABLE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <termios.h>

enum { TABLE_LOG_LINES = 5, TABLE_LOG_SIZE = 256 };

struct table_row {
    const char *kind;
    const char *name;
    const char *members;
    int status;         /* an enum lh_vrrp_status */
    int64_t changed_ms; /* when the row last changed, on table_clock_ms() */
};

struct table {
    bool is_open;
    int log_fd;       /* what is written to standard error; -1 when that is no terminal */
    int usual_errors; /* the terminal that standard error was */
    bool has_keys;    /* standard input is a terminal: keys arrive at once and are not shown */
    struct termios usual_keys;
    char log[TABLE_LOG_LINES][TABLE_LOG_SIZE]; /* the last lines, the newest one last */
    size_t log_count;
    size_t log_length; /* of the newest line while it is not whole, else 0 */
};

/* Is standard output a terminal that can move its cursor? */
bool table_is_possible(void);

/* Takes the screen and standard error. -1 on failure, with errno; nothing was taken then. */
int table_open(struct table *table);
/* Gives both back, and shows what is left of the log on the usual screen. Closing a table that is
   not open (all zeroes) does nothing. */
void table_close(struct table *table);

/* The screen alone: for a program that stops for a while. */
void table_leave_screen(struct table *table);
void table_enter_screen(struct table *table);

/* Draws the whole table in one go. -1 when the terminal has gone. */
int table_draw(const struct table *table, const struct table_row *rows, size_t count);

/* Takes in what was written to standard error. */
void table_take_log(struct table *table);

/* Milliseconds on the clock that no change of the time of day moves. */
int64_t table_clock_ms(void);

#endif
