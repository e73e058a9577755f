/* The files of a daemon: its state, its journal, and copies of both. */
#include <stdio.h>
#include <stdlib.h>

#include <lh_file.h>

/* The whole state in one go, and back. */
static void save_and_load(const char *path)
{
    struct {
        int port, speed;
    } saved = {22, 1000}, loaded = {0, 0};
    if (lh_file_write(path, &saved, sizeof(saved)) == 0 &&
        lh_file_read(path, &loaded, sizeof(loaded)) == 0)
        printf("port %d, %d Mbit/s\n", loaded.port, loaded.speed);
}

/* The file is never created by appending: make it first. */
static int journal_event(const char *path, const char *event, int number)
{
    if (!lh_file_is_exist(path) && lh_file_create(path, 0640) != 0)
        return -1;
    return lh_file_line_append(path, "%s %d\n", event, number);
}

static void read_journal(const char *path)
{
    char line[80], first[80];
    size_t lines = 0;
    int number = 0;
    if (lh_file_lines_num_get(path, &lines) == 0)
        printf("%zu events\n", lines - 1); /* newlines plus one */
    if (lh_file_line_get_by_num(path, line, sizeof(line), 2) == 0)
        printf("the second is %s\n", line);
    if (lh_file_read_line(path, first, sizeof(first)) == 0)
        printf("the first is %s\n", first);
    if (lh_file_scanf(path, "%*s %d", &number) == 1)
        printf("with number %d\n", number);
}

/* The newest event first. */
static void read_backwards(FILE *file)
{
    char *line = NULL;
    size_t size = 0;
    fseek(file, 0, SEEK_END);
    while (lh_file_reverse_getline(&line, &size, file) != -1) {
        if (line[0] != '\0') /* the empty line behind the last newline */
            fputs(line, stdout);
    }
    free(line);
}

static void read_behind_the_header(FILE *file)
{
    char event[80];
    rewind(file);
    if (lh_file_skip_lines(file, 1) == 0 &&
        fscanf(file, "%79s", event) == 1)
        printf("behind the first line: %s\n", event);
}

static void show_contents(const char *path)
{
    char *text = NULL;
    size_t size = 0;
    if (lh_file_text_alloc(path, &text, &size) != 0)
        return;
    printf("%zu bytes of text\n", size - 1);
    free(text);
}

static void describe(const char *path)
{
    printf("%s: %s, %zu bytes, mode %o\n", path,
           lh_file_is_reg(path) ? "file" : "no file",
           lh_file_size_get(path), lh_file_get_mode(path) & 07777);
    /* never true: a link counts as what it leads to */
    if (lh_file_is_lnk(path))
        printf("%s: link\n", path);
}

static void copy(const char *path)
{
    if (lh_copy_file(path, "copy", 0600) == 0)
        describe("copy");
    printf("%d bytes inside the kernel\n",
           lh_fast_copy_file(path, "fast", 0600, 0));
    lh_file_permissions_add("fast", 0040);
    describe("fast");
    printf("two files: %d\n",
           lh_file_get_inode("copy") != lh_file_get_inode("fast"));
}

/* From another system; the name is safe for the shell. */
static int accept_foreign_file(const char *path)
{
    return lh_file_is_empty(path)
               ? -1
               : lh_file_convert_to_unix_format(path, path);
}

static void clean_up(void)
{
    /* an absent file is no error worth a line */
    lh_file_rm("maybe-there");
    lh_file_rm_nocheck("copy"); /* also a dangling link */
    printf("%d\n", lh_file_is_exist("copy"));
}

static void show_program(const char *command_line)
{
    char program[32], path[64];
    if (lh_basename(command_line, program, sizeof(program), path,
                    sizeof(path)) == 0)
        printf("%s is %s\n", path, program);
}

int main(void)
{
    save_and_load("state");
    journal_event("journal", "start", 1);
    journal_event("journal", "reload", 2);
    read_journal("journal");

    FILE *file = fopen("journal", "r");
    if (file == NULL)
        return 1;
    read_backwards(file);
    read_behind_the_header(file);
    fclose(file);

    show_contents("journal");
    printf("a directory: %d\n", lh_file_is_dir("."));
    copy("journal");
    lh_file_create("foreign", 0600);
    lh_file_write("foreign", "a\r\n", 3);
    if (accept_foreign_file("foreign") == 0)
        describe("foreign");
    clean_up();
    show_program("/bin/sh -c true");
    return 0;
}

/* Prints:
 * port 22, 1000 Mbit/s
 * 2 events
 * the second is reload 2
 * the first is start 1
 * with number 1
 * reload 2
 * start 1
 * behind the first line: reload
 * 17 bytes of text
 * a directory: 1
 * copy: file, 17 bytes, mode 600
 * 17 bytes inside the kernel
 * fast: file, 17 bytes, mode 640
 * two files: 1
 * foreign: file, 2 bytes, mode 600
 * 0
 * /bin/sh is sh
 */
