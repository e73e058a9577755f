/* A daemon's spool directory: made, measured, counted, cleared and
 * removed. */
#include <inttypes.h>
#include <stdio.h>
#include <unistd.h>

#include <lh_dir.h>
#include <lh_file.h>

/* The directory and its parents; all are there afterwards, whoever made
 * them. */
static int make_spool(const char *path)
{
    lh_dir_lookup_opts opts = {.flags = LH_DIR_DESCEND};
    return lh_dir_is_exist(path) ? 0 : lh_dir_create(path, &opts, 0755);
}

static int count_file(const char *path, unsigned char type, void *cookie)
{
    (void)path;
    if (type != 4) /* not a directory */
        ++*(unsigned *)cookie;
    return 0;
}

static unsigned count_files(const char *path)
{
    unsigned files = 0;
    lh_dir_lookup_opts opts = {.flags = LH_DIR_DESCEND | LH_DIR_CALLBACK,
                               .callback = count_file};
    return lh_dir_lookup(path, &opts, &files) == 0 ? files : 0;
}

/* Only what stands in the directory itself; lh_dir_size() is the whole
 * tree. */
static uint64_t size_without_subdirectories(const char *path)
{
    uint64_t size = 0;
    lh_dir_lookup_opts opts = {.flags = LH_DIR_CALLBACK,
                               .callback = lh_dir_cb_size};
    return lh_dir_lookup(path, &opts, &size) == 0 ? size : 0;
}

static int has_room(const char *path, size_t size)
{
    return lh_get_free_fs_size(path) >= size;
}

int main(void)
{
    if (make_spool("spool/new") != 0 || !has_room("spool", 2000))
        return 1;
    lh_file_write("spool/first", "1234", 4);
    lh_file_write("spool/new/second", "12345", 5);
    printf("%u files\n", count_files("spool"));
    printf("%d\n",
           lh_dir_size("spool") > size_without_subdirectories("spool"));
    printf("%d\n", lh_dir_chown_recursive("spool", getuid(), getgid()));

    printf("%d\n", lh_dir_clear("spool")); /* empty now */
    printf("%d\n", lh_dir_rm("spool"));    /* gone */
    return lh_dir_is_exist("spool");
}

/* Prints:
 * 2 files
 * 1
 * 0
 * 0
 * 0
 */
