/*
 * log_tail: prints the last lines of a file, found by reading backwards from its end, so that a
 * large log costs no more than a small one.
 *
 * Shows lh_file_reverse_getline() (lh_file.h): its buffers, its end, and its two surprises.
 *
 * Build: cc -std=c11 log_tail.c -o log_tail -lVYThelpers
 */
#define _GNU_SOURCE 1

#include <errno.h>
#include <getopt.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "lh_file.h"

enum { LINES_DEFAULT = 10, LINES_MAX = 100000 };

static const char usage_line[] = "usage: log_tail [-n LINES] FILE\n";

static const char help[] =
    "\n"
    "Prints the last lines of FILE.\n"
    "\n"
    "  -n LINES    how many, 1 to 100000; 10 unless named\n"
    "  -h, --help  show this text\n"
    "\n"
    "Ends with 0 when all went well, with 1 when FILE could not be read, with 2 for wrong\n"
    "arguments.\n";

struct line {
    char *text;
    size_t length; /* a log may hold NUL bytes: the text is more than a string */
};

/* Stands the file at its end, or before the newline that ends its last line: behind that newline
   the reader would find an empty line first. */
static int go_to_end(FILE *file)
{
    if (fseek(file, 0, SEEK_END) != 0)
        return -1;
    if (ftell(file) == 0)
        return 0;
    if (fseek(file, -1, SEEK_END) != 0)
        return -1;
    return fgetc(file) == '\n' ? fseek(file, -1, SEEK_END) : 0;
}

/* The reader never returns a first line that is empty. */
static bool starts_with_empty_line(FILE *file)
{
    rewind(file);
    return fgetc(file) == '\n';
}

/* Reads at most `max` lines, the last one first. Returns how many, or -1. */
static long read_backwards(FILE *file, struct line *lines, long max)
{
    long count = 0;
    if (go_to_end(file) != 0)
        return -1;
    while (count < max) {
        struct line *line = &lines[count];
        size_t size = 0;
        errno = 0;
        ssize_t length = lh_file_reverse_getline(&line->text, &size, file);
        if (length == -1 && errno != 0)
            return -1;
        if (length == -1) { /* errno kept: the start of the file */
            if (starts_with_empty_line(file) && (line->text = strdup("\n")) != NULL)
                lines[count++].length = 1;
            break;
        }
        line->length = (size_t)length;
        count++;
    }
    return count;
}

static int print_forwards(const struct line *lines, long count)
{
    for (long i = count; i-- > 0;)
        fwrite(lines[i].text, 1, lines[i].length, stdout);
    return fflush(stdout);
}

static int tail(const char *path, long max)
{
    struct line *lines = calloc((size_t)max, sizeof(*lines));
    FILE *file = fopen(path, "re");
    long count = lines != NULL && file != NULL ? read_backwards(file, lines, max) : -1;
    int status = 0;

    if (count < 0) {
        fprintf(stderr, "log_tail: cannot read %s: %s\n", path, strerror(errno));
        status = 1;
    } else if (print_forwards(lines, count) != 0) {
        fprintf(stderr, "log_tail: cannot write: %s\n", strerror(errno));
        status = 1;
    }
    for (long i = 0; lines != NULL && i < max; i++)
        free(lines[i].text);
    free(lines);
    if (file != NULL)
        fclose(file);
    return status;
}

static int usage(void)
{
    fputs(usage_line, stderr);
    return 2;
}

int main(int argc, char **argv)
{
    static const struct option options[] = {{"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};
    long max = LINES_DEFAULT;
    char *end;
    int option;

    while ((option = getopt_long(argc, argv, "+n:h", options, NULL)) != -1) {
        switch (option) {
        case 'h':
            fputs(usage_line, stdout);
            fputs(help, stdout);
            return 0;
        case 'n':
            max = strtol(optarg, &end, 10);
            if (end != optarg && *end == '\0' && max >= 1 && max <= LINES_MAX)
                break;
            fprintf(stderr, "log_tail: -n %s: a number from 1 to %d is needed\n", optarg,
                    LINES_MAX);
            return usage();
        default:
            return usage();
        }
    }
    if (argc - optind != 1)
        return usage();
    openlog("log_tail", LOG_PERROR, LOG_USER); /* the library's lines on standard error, too */
    return tail(argv[optind], max);
}
