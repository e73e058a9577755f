/* The live table of vrrp_monitor. */
#define _GNU_SOURCE 1

#include "vrrp_table.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include "lh_close.h"
#include "lh_vrrp.h"

/* What terminals understand: the other screen, no wrapping at the edge, no cursor; and back. */
#define ENTER_SCREEN "\033[?1049h\033[?7l\033[?25l"
#define LEAVE_SCREEN "\033[?25h\033[?7h\033[?1049l"
#define HOME "\033[H"
#define ERASE_LINE "\033[K"  /* from the cursor to the end */
#define ERASE_BELOW "\033[J" /* from the cursor to the end */

enum { COLUMNS_USUAL = 80, ROWS_USUAL = 24, STATUS_WIDTH = 9, TIME_WIDTH = 15 };

int64_t table_clock_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* The frame ---------------------------------------------------------------------------------- */

/* One picture of the screen, put together in memory and written at once. Lines are never longer
   than the screen, and what an earlier frame left is erased behind the new text: nothing flickers. */
struct frame {
    FILE *bytes;
    int columns, rows; /* of the screen */
    int column, row;   /* the next character's; rows count from 1 */
    bool colours;
};

static void next_line(struct frame *frame)
{
    if (frame->row > 0) {
        /* Behind the last column the cursor stands on it: erasing would take its character. */
        if (frame->column < frame->columns)
            fputs(ERASE_LINE, frame->bytes);
        fputs("\r\n", frame->bytes);
    }
    frame->row++;
    frame->column = 0;
}

static void end_frame(struct frame *frame)
{
    if (frame->row < frame->rows) {
        next_line(frame);
        fputs(ERASE_BELOW, frame->bytes);
    } else if (frame->column < frame->columns) {
        fputs(ERASE_LINE, frame->bytes);
    }
}

/* A name may hold any byte: what is no plain character does not reach the terminal. */
static void put(struct frame *frame, const char *text)
{
    for (; *text != '\0' && frame->column < frame->columns; text++, frame->column++)
        fputc(*text >= ' ' && *text <= '~' ? *text : '?', frame->bytes);
}

static void go_to_column(struct frame *frame, int column)
{
    while (frame->column < column && frame->column < frame->columns)
        put(frame, " ");
}

static void put_status(struct frame *frame, int status)
{
    static const char *const colours[] = {[LH_VRRP_STATUS_UNKNOWN] = "\033[90m",
                                          [LH_VRRP_STATUS_INIT] = "\033[33m",
                                          [LH_VRRP_STATUS_BACKUP] = "\033[36m",
                                          [LH_VRRP_STATUS_MASTER] = "\033[32m",
                                          [LH_VRRP_STATUS_FAULT] = "\033[1;31m"};
    bool coloured = frame->colours && status >= LH_VRRP_STATUS_UNKNOWN;
    if (coloured)
        fputs(colours[status], frame->bytes);
    put(frame, lh_vrrp_status_stringize(status));
    if (coloured)
        fputs("\033[0m", frame->bytes);
}

/* The two largest units: "7 s ago", "2 m 05 s ago", "3 h 10 m ago", "12 d 00 h ago". */
static void put_time(struct frame *frame, int64_t ms)
{
    long long s = ms / 1000, m = s / 60, h = m / 60, d = h / 24;
    char text[64];
    if (d > 0)
        snprintf(text, sizeof(text), "%lld d %02lld h ago", d, h % 24);
    else if (h > 0)
        snprintf(text, sizeof(text), "%lld h %02lld m ago", h, m % 60);
    else if (m > 0)
        snprintf(text, sizeof(text), "%lld m %02lld s ago", m, s % 60);
    else
        snprintf(text, sizeof(text), "%lld s ago", s);
    put(frame, text);
}

static void put_title(struct frame *frame, const char *hint)
{
    char text[64] = "";
    time_t now = time(NULL);
    struct tm local;
    if (localtime_r(&now, &local) != NULL)
        strftime(text, sizeof(text), "vrrp_monitor  %Y-%m-%d %H:%M:%S  ", &local);
    next_line(frame);
    put(frame, text);
    put(frame, hint);
}

static void put_row(struct frame *frame, const struct table_row *row, int name_width,
                    int64_t now_ms)
{
    int column = name_width + 2;
    next_line(frame);
    put(frame, row->kind);
    put(frame, " ");
    put(frame, row->name);
    go_to_column(frame, column);
    put_status(frame, row->status);
    go_to_column(frame, column += STATUS_WIDTH);
    put_time(frame, now_ms - row->changed_ms);
    go_to_column(frame, column + TIME_WIDTH);
    put(frame, row->members);
}

static void put_head(struct frame *frame, int name_width)
{
    next_line(frame);
    go_to_column(frame, name_width + 2);
    put(frame, "STATUS");
    go_to_column(frame, name_width + 2 + STATUS_WIDTH);
    put(frame, "CHANGED");
    go_to_column(frame, name_width + 2 + STATUS_WIDTH + TIME_WIDTH);
    put(frame, "MEMBERS");
}

static void put_rows(struct frame *frame, const struct table_row *rows, size_t count, size_t shown)
{
    int name_width = 0;
    for (size_t i = 0; i < count; i++) {
        int width = (int)(strlen(rows[i].kind) + 1 + strlen(rows[i].name));
        name_width = width > name_width ? width : name_width;
    }
    put_head(frame, name_width);
    int64_t now_ms = table_clock_ms();
    for (size_t i = 0; i < shown; i++)
        put_row(frame, &rows[i], name_width, now_ms);
    if (shown < count) {
        char text[64];
        snprintf(text, sizeof(text), "... %zu more", count - shown);
        next_line(frame);
        put(frame, text);
    }
}

static void put_log(struct frame *frame, const struct table *table, size_t shown)
{
    next_line(frame);
    for (size_t i = table->log_count - shown; i < table->log_count; i++) {
        next_line(frame);
        put(frame, table->log[i]);
    }
}

/* Shares the screen: title and head first, then the rows, then an empty line and the log. A log that
   has something to say gets one line even when the rows do not fit. */
static void put_all(struct frame *frame, const struct table *table, const struct table_row *rows,
                    size_t count)
{
    enum { HEADS = 2, GAP = 1, ROWS_FOR_LOG = 6 };
    size_t room = frame->rows > HEADS ? (size_t)(frame->rows - HEADS) : 0;
    size_t log = 0;
    if (table->log_count > 0 && (room >= count + GAP + 1 || frame->rows >= ROWS_FOR_LOG)) {
        log = room > count + GAP ? room - count - GAP : 1;
        log = log < table->log_count ? log : table->log_count;
        room -= log + GAP;
    }
    size_t shown = count <= room ? count : room > 0 ? room - 1 : 0;

    put_title(frame, table->has_keys ? "q quits" : "");
    if (frame->rows > HEADS)
        put_rows(frame, rows, count, shown);
    if (log > 0)
        put_log(frame, table, log);
}

static int write_all(int fd, const char *bytes, size_t length)
{
    while (length > 0) {
        ssize_t written = write(fd, bytes, length);
        if (written < 0 && errno != EINTR)
            return -1;
        if (written > 0) {
            bytes += written;
            length -= (size_t)written;
        }
    }
    return 0;
}

int table_draw(const struct table *table, const struct table_row *rows, size_t count)
{
    struct winsize size = {0};
    const char *no_color = getenv("NO_COLOR");
    char *bytes = NULL;
    size_t length = 0;

    (void)ioctl(STDOUT_FILENO, TIOCGWINSZ, &size); /* some terminals do not know: zeroes */
    struct frame frame = {.bytes = open_memstream(&bytes, &length),
                          .columns = size.ws_col != 0 ? size.ws_col : COLUMNS_USUAL,
                          .rows = size.ws_row != 0 ? size.ws_row : ROWS_USUAL,
                          .colours = no_color == NULL || no_color[0] == '\0'};
    if (frame.bytes == NULL)
        return 0; /* no memory now: the next frame comes in a second */
    fputs(HOME, frame.bytes);
    put_all(&frame, table, rows, count);
    end_frame(&frame);
    int result = 0;
    if (fclose(frame.bytes) == 0)
        result = write_all(STDOUT_FILENO, bytes, length);
    free(bytes);
    return result;
}

/* The log ------------------------------------------------------------------------------------ */

static void take_character(struct table *table, char c)
{
    if (table->log_length == 0) { /* a new line: the oldest one makes room */
        if (table->log_count == TABLE_LOG_LINES)
            memmove(table->log[0], table->log[1], sizeof(table->log) - sizeof(table->log[0]));
        else
            table->log_count++;
    }
    char *line = table->log[table->log_count - 1];
    if (c == '\n') {
        line[table->log_length] = '\0';
        table->log_length = 0;
    } else if (table->log_length < TABLE_LOG_SIZE - 1) {
        line[table->log_length++] = c;
        line[table->log_length] = '\0';
    }
}

void table_take_log(struct table *table)
{
    char block[1024];
    ssize_t size;
    while (table->log_fd >= 0 && (size = read(table->log_fd, block, sizeof(block))) > 0) {
        for (ssize_t i = 0; i < size; i++)
            take_character(table, block[i]);
    }
}

/* Standard error becomes a pipe: a line written there would tear the table. The pipe never blocks,
   because its reader is the same thread; when it is full, lines are lost. */
static int take_errors(struct table *table)
{
    int ends[2];
    if (!isatty(STDERR_FILENO))
        return 0; /* goes elsewhere, and does not disturb */
    table->usual_errors = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (table->usual_errors < 0)
        return -1;
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        lh_close(&table->usual_errors);
        return -1;
    }
    dup2(ends[1], STDERR_FILENO);
    lh_close(&ends[1]);
    table->log_fd = ends[0];
    return 0;
}

static void give_errors_back(struct table *table)
{
    if (table->log_fd < 0)
        return;
    table_take_log(table);
    dup2(table->usual_errors, STDERR_FILENO);
    lh_close(&table->usual_errors);
    lh_close(&table->log_fd);
    for (size_t i = 0; i < table->log_count; i++)
        fprintf(stderr, "%s\n", table->log[i]);
}

/* The screen --------------------------------------------------------------------------------- */

bool table_is_possible(void)
{
    const char *terminal = getenv("TERM");
    return isatty(STDOUT_FILENO) && terminal != NULL && terminal[0] != '\0' &&
           strcmp(terminal, "dumb") != 0;
}

void table_enter_screen(struct table *table)
{
    table->has_keys = isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &table->usual_keys) == 0;
    if (table->has_keys) {
        struct termios keys = table->usual_keys;
        keys.c_lflag &= ~(tcflag_t)(ICANON | ECHO);
        keys.c_cc[VMIN] = 0; /* reading never waits: Ctrl-C throws away what woke the loop */
        keys.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSADRAIN, &keys);
    }
    (void)write_all(STDOUT_FILENO, ENTER_SCREEN, strlen(ENTER_SCREEN));
}

void table_leave_screen(struct table *table)
{
    (void)write_all(STDOUT_FILENO, LEAVE_SCREEN, strlen(LEAVE_SCREEN));
    if (table->has_keys)
        tcsetattr(STDIN_FILENO, TCSADRAIN, &table->usual_keys);
}

int table_open(struct table *table)
{
    *table = (struct table){.log_fd = -1, .usual_errors = -1};
    if (take_errors(table) != 0)
        return -1;
    table->is_open = true;
    table_enter_screen(table);
    return 0;
}

void table_close(struct table *table)
{
    if (!table->is_open)
        return;
    table->is_open = false;
    table_leave_screen(table);
    give_errors_back(table);
}
