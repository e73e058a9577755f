// Every fault of asking about files, reading, writing, creating and copying them.
#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

#include "lh_file.h"
#include "support/fault_sweep.hpp"

using namespace vyt::test;

namespace {

std::string contents_of(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0 ? shown(read_file(path)) : "absent";
}

// What is answered about a file "file" with these contents.
scenario about_file(const char *function, const std::string &contents,
                    const std::function<std::string(const char *path)> &call,
                    const std::string &outcome, const std::vector<rule> &faults)
{
    return {.function = function,
            .body =
                [=](Attempt &a) {
                    write_file(a.path("file"), contents);
                    EXPECT_EQ(chmod(a.path("file").c_str(), 0640), 0);
                    return a.faulted([&] { return call(a.path("file").c_str()); });
                },
            .outcome = outcome,
            .faults = faults};
}

// What is done to a file "file" that holds "old", and what it holds then.
scenario changing_file(const char *function, const std::function<int(const char *path)> &call,
                       const std::string &outcome, const std::vector<rule> &faults)
{
    return {.function = function,
            .body =
                [=](Attempt &a) {
                    write_file(a.path("file"), "old");
                    const int result = a.faulted([&] { return call(a.path("file").c_str()); });
                    return shown(result) + " " + contents_of(a.path("file"));
                },
            .outcome = outcome,
            .faults = faults};
}

// Questions ---------------------------------------------------------------------------------------

rule no_mode(const std::string &outcome)
{
    return fails("stat", outcome, {"lh_file_mode: stat '{dir}/file' failed"});
}

std::string own_inode(const char *path)
{
    struct stat st = {};
    const unsigned inode = lh_file_get_inode(path);
    EXPECT_EQ(stat(path, &st), 0);
    return inode == static_cast<unsigned>(st.st_ino) ? "its own" : shown(inode);
}

const std::vector<scenario> questions = {
    about_file("lh_file_is_exist", "",
               [](const char *path) { return shown(lh_file_is_exist(path)); }, "1",
               {fails("access", "0")}),
    {.function = "lh_file_is_dir",
     .body =
         [](Attempt &a) {
             EXPECT_EQ(mkdir(a.path("file").c_str(), 0755), 0);
             return shown(a.faulted([&] { return lh_file_is_dir(a.path("file").c_str()); }));
         },
     .outcome = "1",
     .faults = {no_mode("0")}},
    about_file("lh_file_is_lnk", "", [](const char *path) { return shown(lh_file_is_lnk(path)); },
               "0", {no_mode("0")}),
    about_file("lh_file_is_reg", "", [](const char *path) { return shown(lh_file_is_reg(path)); },
               "1", {no_mode("0")}),
    about_file("lh_file_is_empty", "",
               [](const char *path) { return shown(lh_file_is_empty(path)); }, "1",
               {fails("stat", "0", {"lh_file_is_empty: stat '{dir}/file' failed"})}),
    about_file(
        "lh_file_size_get", "data",
        [](const char *path) { return shown(static_cast<long>(lh_file_size_get(path))); }, "4",
        {fails("access", "0"), fails("stat", "0", {"lh_file_size_get: stat '{dir}/file' failed"})}),
    about_file("lh_file_get_inode", "", own_inode, "its own", {fails("stat", "0")}),
    about_file("lh_file_get_mode", "",
               [](const char *path) { return shown(lh_file_get_mode(path)); },
               shown(S_IFREG | 0640), {fails("stat", "0")}),
};

// Whole files -------------------------------------------------------------------------------------

// What the caller's pointer and size are afterwards.
std::string whole_text(Attempt &a)
{
    write_file(a.path("file"), "data");
    // So that a read that is too short, which is no call's failure, has an errno to show.
    a.faults().before("fread", [](unsigned) { errno = 0; });
    static char untouched[] = "untouched";
    char *text = untouched;
    size_t size = 99;
    const int result =
        a.faulted([&] { return lh_file_text_alloc(a.path("file").c_str(), &text, &size); });
    const bool is_own = result == 0 || text == untouched || text == nullptr;
    std::string left = !is_own ? "freed" : text == untouched ? shown(text) : a.taken(text);
    return shown(result) + " " + left + " " + shown(static_cast<long>(size));
}

const std::string texter = "lh_file_text_alloc: ";
const std::string is_empty = texter + "file '{dir}/file' is empty";
const std::string not_text = texter + "fread '{dir}/file' failed ({code})'{error}'";

std::string first_line(const char *path)
{
    char line[64] = "untouched";
    const int result = lh_file_read_line(path, line, sizeof(line));
    return shown(result) + " " + shown(line);
}

std::string read_start(const char *path)
{
    char data[] = "####";
    if (const int result = lh_file_read(path, data, 3); result != 0)
        return shown(result);
    return "0 " + shown(data);
}

std::string scanned(const char *path)
{
    int number = 0;
    const int result = lh_file_scanf(path, "%d", &number);
    return shown(result) + " " + shown(number);
}

// The library starts the `dos2unix` that stands before the real one.
std::string convert(Attempt &a)
{
    write_file(a.path("dos2unix"), "#!/bin/sh\nprintf 'unix' > \"$2\"\n");
    EXPECT_EQ(chmod(a.path("dos2unix").c_str(), 0700), 0);
    const std::string before = getenv("PATH");
    setenv("PATH", (a.directory() + ":" + before).c_str(), 1);
    const std::string path = a.path("file");
    write_file(path, "dos");
    const int result =
        a.faulted([&] { return lh_file_convert_to_unix_format(path.c_str(), path.c_str()); });
    setenv("PATH", before.c_str(), 1);
    return shown(result) + " " + contents_of(path);
}

const std::string not_moved = "IS_NE check failed: nmemb (1 != 0) !!!";

const std::vector<scenario> whole_files = {
    {.function = "lh_file_text_alloc",
     .body = whole_text,
     .outcome = "0 'data' 5",
     .faults = {fails("access", "-1 'untouched' 99", {is_empty}),
                fails("stat", "-1 'untouched' 99",
                      {"lh_file_size_get: stat '{dir}/file' failed", is_empty}),
                fails("fopen", "-1 'untouched' 99",
                      {texter + "PTR_IS_NULL: f",
                       texter + "fopen '{dir}/file' failed ({code})'{error}'"}),
                fails("malloc", "-1 null 5", {texter + "PTR_IS_NULL: *text"}),
                fails("fread", "-1 freed 5", {not_text}),
                shortened("fread", "-1 freed 5", {not_text}), ignored("fclose")}},
    // A file that cannot be read on ends there.
    about_file("lh_file_read_line", "first\nsecond\n", first_line, "0 'first'",
               {fails("fopen", "-1 '{error}'"), fails("fgets", "0 ''").errno_unpromised(),
                ignored("fclose")}),
    changing_file(
        "lh_file_write", [](const char *path) { return lh_file_write(path, "data", 4); },
        "0 'data'",
        {fails("fopen", "-1 'old'", {"lh_file_write: fopen '{dir}/file' failed: {error}"}),
         fails("fwrite", "-1 ''", {"lh_file_write: " + not_moved}),
         shortened("fwrite", "-1 ''", {"lh_file_write: " + not_moved}),
         // Deliberate: what shows only when the file is closed is not noticed.
         ignored("fclose")}),
    about_file("lh_file_read", "data", read_start, "0 'dat#'",
               {fails("fopen", "-1", {"lh_file_read: fopen '{dir}/file' failed: {error}"}),
                fails("fread", "-1", {"lh_file_read: " + not_moved}),
                shortened("fread", "-1", {"lh_file_read: " + not_moved}), ignored("fclose")}),
    about_file("lh_file_scanf", "7\n", scanned, "1 7",
               {fails("fopen", "-1 0", {"lh_file_scanf: PTR_IS_NULL: f"}),
                fails("__isoc99_vfscanf", "-1 0"),
                fails("fclose", "1 7", {"lh_file_scanf: fclose(f) failed"})}),
    changing_file("lh_file_rm_nocheck", lh_file_rm_nocheck, "0 absent",
                  {fails("unlink", "-1 'old'")}),
    changing_file("lh_file_rm", lh_file_rm, "0 absent",
                  {fails("access", "-1 'old'"), fails("unlink", "-1 'old'")}),
    {.function = "lh_file_convert_to_unix_format",
     .body = convert,
     .outcome = "0 'unix'",
     .faults = {fails("access", "-1 'dos'",
                      {"lh_file_convert_to_unix_format: IS_NOT: lh_file_is_exist(path)"}),
                fails("vsnprintf", "-1 'dos'", {"_lh_snprintf: truncated: ''"}),
                fails("system", "-1 'dos'",
                      {"lh_file_convert_to_unix_format: system(cmd) failed"})}},
};

// Lines -------------------------------------------------------------------------------------------

std::string count_lines(const char *path)
{
    size_t number = 77;
    const int result = lh_file_lines_num_get(path, &number);
    return shown(result) + " " + shown(static_cast<long>(number));
}

std::string second_line(const char *path)
{
    char line[8] = "old";
    const int result = lh_file_line_get_by_num(path, line, sizeof(line), 2);
    return shown(result) + " " + shown(line);
}

FILE *opened(const Attempt &a, const std::string &contents)
{
    write_file(a.path("file"), contents);
    FILE *f = fopen(a.path("file").c_str(), "r");
    EXPECT_NE(f, nullptr);
    return f;
}

std::string skip_two(Attempt &a)
{
    FILE *f = opened(a, "a\nb\nc\n");
    const int result = a.faulted([&] { return lh_file_skip_lines(f, 2); });
    const std::string next = result == 0 ? std::string(" at ") + static_cast<char>(getc(f)) : "";
    fclose(f);
    return shown(result) + next;
}

std::string last_line(Attempt &a, const std::string &contents)
{
    FILE *f = opened(a, contents);
    EXPECT_EQ(fseek(f, 0, SEEK_END), 0);
    // So that a read that is too short, which is no call's failure, has an errno to show.
    a.faults().before("fread", [](unsigned) { errno = 0; });
    char *line = nullptr;
    size_t size = 0;
    const ssize_t length = a.faulted([&] { return lh_file_reverse_getline(&line, &size, f); });
    std::string outcome = shown(length);
    if (length >= 0)
        outcome += " " + shown(line) + " at " + shown(ftell(f));
    fclose(f);
    a.release(line);
    return outcome;
}

const std::string appender = "lh_file_line_append: ";
const std::string getter = "lh_file_line_get_by_num: ";
const std::string skipper = "lh_file_skip_lines: ";
const std::string reverser = "lh_file_reverse_getline: ";

const std::vector<rule> no_line_before = {
    fails("ftell", "-1", {reverser + "ftell failed: {error}"}),
    fails("fseek", "-1", {reverser + "fseek failed: {error}"}),
    fails("fread", "-1", {reverser + "fread failed: ({error})"}),
    shortened("fread", "-1", {reverser + "fread failed: ({error})"}),
    fails("getline", "-1", {reverser + "getline failed: {error}"}),
};

const std::vector<scenario> line_by_line = {
    changing_file(
        "lh_file_line_append",
        [](const char *path) { return lh_file_line_append(path, "%s%d\n", "x", 7); }, "0 'oldx7\n'",
        {fails("access", "-1 'old'", {appender + "IS_NOT: lh_file_is_exist(path)"}),
         fails("vasprintf", "-1 'old'", {appender + "IS_EQ check failed: -1 (-1 == -1) !!!"}),
         fails("fopen", "-1 'old'", {appender + "PTR_IS_NULL: f"}),
         fails("fwrite", "-1 'old'", {appender + "IS_NE check failed: 1 (1 != 0) !!!"}),
         shortened("fwrite", "-1 'old'", {appender + "IS_NE check failed: 1 (1 != 0) !!!"}),
         fails("fclose", "0 'oldx7\n'", {appender + "fclose(f) failed"})}),
    // A read error ends the counting like the end of the file.
    about_file("lh_file_lines_num_get", "a\nb\n", count_lines, "0 3",
               {fails("access", "-1 77", {"lh_file_lines_num_get: IS_NOT: lh_file_is_exist(path)"}),
                fails("fopen", "-1 77", {"lh_file_lines_num_get: PTR_IS_NULL: f"}),
                fails("fread", "0 1").errno_unpromised(),
                fails("fclose", "0 3", {"lh_file_lines_num_get: fclose(f) failed"})}),
    about_file("lh_file_line_get_by_num", "ab\ncd\n", second_line, "0 'cd'",
               {fails("fopen", "-1 'old'", {getter + "PTR_IS_NULL: f"}), fails("fgets", "-1 'old'"),
                fails("fclose", "0 'cd'", {getter + "fclose(f) failed"})}),
    {.function = "lh_file_skip_lines",
     .body = skip_two,
     .outcome = "0 at c",
     .faults = {fails("__isoc99_fscanf", "-1",
                      {skipper + "IS_EQ check failed: rc (-1 == -1) !!!",
                       skipper + "end of file reached"}),
                // Whether more than this line is empty is only looked ahead for.
                ignored("getc")}},
    {.function = "lh_file_reverse_getline",
     .body = [](Attempt &a) { return last_line(a, "a\nb"); },
     .outcome = "1 'b' at 1",
     .faults = no_line_before},
    {.function = "lh_file_reverse_getline",
     .way = "behind the last newline",
     .body = [](Attempt &a) { return last_line(a, "a\n"); },
     .outcome = "1 '' at 1",
     .faults = no_line_before},
};

// Creating and copying ----------------------------------------------------------------------------

std::string add_permissions(Attempt &a)
{
    const std::string path = a.path("file");
    write_file(path, "");
    EXPECT_EQ(chmod(path.c_str(), 0640), 0);
    const int result = a.faulted([&] { return lh_file_permissions_add(path.c_str(), 0111); });
    struct stat st = {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    return shown(result) + ((st.st_mode & 07777) == 0751 ? " added" : " not added");
}

// Copies 5000 bytes. How many of them are in the copy, which is opened before they are read.
std::string copied(Attempt &a, const std::function<int(const char *, const char *)> &copy)
{
    std::string contents;
    while (contents.size() < 5000)
        contents += shown(static_cast<long>(contents.size()));
    contents.resize(5000);
    write_file(a.path("file"), contents);
    const int result =
        a.faulted([&] { return copy(a.path("file").c_str(), a.path("copy").c_str()); });
    if (access(a.path("copy").c_str(), F_OK) != 0)
        return shown(result) + ", no copy";
    const std::string copy_of = read_file(a.path("copy"));
    return shown(result) + ", " + shown(static_cast<long>(copy_of.size())) + " bytes" +
           (copy_of == contents ? ", the same" : "");
}

std::string program_of(Attempt &a)
{
    EXPECT_EQ(mkdir(a.path("bin").c_str(), 0755), 0);
    write_file(a.path("bin/prog"), "");
    char base[64];
    char prefix[256];
    const int result = a.faulted([&] {
        return lh_basename((a.path("bin/prog") + " -d x").c_str(), base, sizeof(base), prefix,
                           sizeof(prefix));
    });
    return shown(result) + " " + shown(base) + " of " + shown(prefix);
}

const std::string creator = "lh_file_create: ";
const std::string adder = "lh_file_permissions_add: ";
const std::string copier = "lh_copy_file: ";
const std::string fast_copier = "lh_fast_copy_file: ";

const std::vector<scenario> copies = {
    changing_file("lh_file_create", [](const char *path) { return lh_file_create(path, 0600); },
                  "0 ''",
                  {fails("open", "-1 'old'", {creator + "cannot open file '{dir}/file': {error}"}),
                   fails("close", "-1 ''", {creator + "cannot close file '{dir}/file': {error}"})}),
    {.function = "lh_file_permissions_add",
     .body = add_permissions,
     .outcome = "0 added",
     .faults = {fails("stat", "-1 not added", {adder + "cannot stat file '{dir}/file': {error}"}),
                fails("chmod", "-1 not added",
                      {adder + "cannot chmod file '{dir}/file': {error}"})}},
    // Deliberate: a short read ends the copying without a complaint, a short write is not noticed.
    {.function = "lh_copy_file",
     .body =
         [](Attempt &a) {
             return copied(
                 a, [](const char *src, const char *dst) { return lh_copy_file(src, dst, 0); });
         },
     .outcome = "0, 5000 bytes, the same",
     .faults = {fails("stat", "-1, no copy", {copier + "stat failed ({error})"}),
                fails("open:1", "-1, no copy", {copier + "open file {dir}/copy failed ({error})"}),
                fails("utime", "-1, 0 bytes", {copier + "utime failed ({error})"}),
                fails("fchmod", "-1, 0 bytes", {copier + "fchmod failed ({error})"}),
                fails("fchown", "-1, 0 bytes", {copier + "fchmod failed ({error})"}),
                fails("open:2", "-1, 0 bytes", {copier + "open file {dir}/file ({error})"}),
                fails("read:1", "-1, 0 bytes", {copier + "read failed ({error})"}),
                fails("write:1", "-1, 0 bytes", {copier + "write failed ({error})"}),
                fails("read:2", "-1, 4096 bytes", {copier + "read failed ({error})"}),
                fails("write:2", "-1, 4096 bytes", {copier + "write failed ({error})"}),
                shortened("read:1", "0, 2048 bytes"), resumed("read:2"),
                shortened("write:1", "0, 2952 bytes"), shortened("write:2", "0, 4548 bytes"),
                ignored("close")}},
    {.function = "lh_fast_copy_file",
     .body =
         [](Attempt &a) {
             return copied(a, [](const char *src, const char *dst) {
                 return lh_fast_copy_file(src, dst, 0, 1);
             });
         },
     .outcome = "5000, 5000 bytes, the same",
     .faults =
         {fails("open", "-1, no copy", {fast_copier + "open file {dir}/file failed ({error})"}),
          fails("fstat", "-1, no copy",
                {fast_copier + "fstat of file '{dir}/file' failed ({error})"}),
          fails("creat", "-1, no copy", {fast_copier + "open file {dir}/copy failed ({error})"}),
          fails("sendfile", "-1, 0 bytes",
                {fast_copier + "sendfile src:'{dir}/file', dst:'{dir}/copy' failed ({error})"}),
          shortened("sendfile", "2500, 2500 bytes"), ignored("fsync"), ignored("close")}},
    // A part that cannot be looked for is one that names no file.
    {.function = "lh_basename",
     .body = program_of,
     .outcome = "0 'prog' of '{dir}/bin/prog'",
     .faults = {fails("strdup", "0 'prog -d x' of '{dir}/bin/prog -d x'",
                      {"lh_basename: PTR_IS_NULL: copy_path"})
                    .errno_unpromised(),
                ignored("access:1"), ignored("access:2"),
                fails("access:3", "0 'bin' of '{dir}/bin'").errno_unpromised()}},
};

const bool swept = register_fault_sweep("FaultsOfFileQuestions", questions) &&
                   register_fault_sweep("FaultsOfWholeFiles", whole_files) &&
                   register_fault_sweep("FaultsOfLines", line_by_line) &&
                   register_fault_sweep("FaultsOfCopies", copies);

} // namespace
