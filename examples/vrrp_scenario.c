/* Reads scenarios. See the help of vrrp_publisher for the words. */
#define _GNU_SOURCE 1

#include "vrrp_scenario.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

/* Says what is wrong with the line that is being read. */
__attribute__((format(printf, 2, 3))) static bool wrong(const struct scenario *scenario,
                                                        const char *format, ...)
{
    va_list args;
    fprintf(stderr, "%s:%zu: ", scenario->file, scenario->line);
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    return false;
}

/* Words -------------------------------------------------------------------------------------- */

static const char *const way_names[WAY_COUNT] = {
    [WAY_RENAME] = "rename",
    [WAY_IN_PLACE] = "in-place",
    [WAY_TRUNCATE] = "truncate",
    [WAY_RECREATE] = "recreate",
    [WAY_RECREATE_DIRECTORY] = "recreate-directory",
    [WAY_DELETE] = "delete",
    [WAY_REMOVE_DIRECTORY] = "remove-directory",
};

const char *way_name(enum way way)
{
    return way_names[way];
}

bool parse_number(const char *word, long min, long max, int32_t *number)
{
    char *end;
    errno = 0;
    long value = strtol(word, &end, 10);
    if (errno != 0 || end == word || *end != '\0' || value < min || value > max)
        return false;
    *number = (int32_t)value;
    return true;
}

static bool parse_netns(const struct scenario *scenario, const char *word, char *netns)
{
    if (strlen(word) >= NETNS_SIZE)
        return wrong(scenario, "the namespace '%s' has more than %d characters", word,
                     NETNS_SIZE - 1);
    snprintf(netns, NETNS_SIZE, "%s", strcmp(word, "-") == 0 ? "" : word); /* it fits */
    return true;
}

static bool parse_state(const char *word, int32_t *state)
{
    for (int i = 0; i < STATE_COUNT; i++) {
        if (strcasecmp(word, state_name(i)) == 0) {
            *state = i;
            return true;
        }
    }
    return parse_number(word, INT32_MIN, INT32_MAX, state);
}

static const char *parse_status(const char *word)
{
    for (int i = 0; i < STATE_COUNT; i++) {
        if (strcasecmp(word, state_name(i)) == 0)
            return state_name(i);
    }
    return strcasecmp(word, "Unknown") == 0 ? "Unknown" : NULL;
}

/* Makes room for one more at the end of an array and zeroes it. */
static void *append(void *array_pointer, size_t *count, size_t size)
{
    void **array = array_pointer;
    char *grown = realloc(*array, (*count + 1) * size);
    if (grown == NULL) {
        perror("scenario");
        exit(1);
    }
    *array = grown;
    return memset(grown + (*count)++ * size, 0, size);
}

/* The lines of a scenario -------------------------------------------------------------------- */

/* A step is whole when the next one begins and when the scenario ends. */
static bool finish_step(const struct scenario *scenario)
{
    const struct step *step = &scenario->steps[scenario->count - 1];
    if (step->way == WAY_COUNT)
        return wrong(scenario, "the step '%s' ends here without a 'write'", step->title);
    if (step->way >= WAY_DELETE && step->record_count != 0)
        return wrong(scenario, "the step '%s' ends here; '%s' takes no records", step->title,
                     way_name(step->way));
    return true;
}

static bool read_step(struct scenario *scenario, char *title)
{
    title += strspn(title, " \t");
    title[strcspn(title, "\r\n")] = '\0';
    if (title[0] == '\0')
        return wrong(scenario, "a step needs a title");
    if (scenario->count != 0 && !finish_step(scenario))
        return false;
    struct step *step = append(&scenario->steps, &scenario->count, sizeof(*step));
    step->way = WAY_COUNT;
    step->title = strdup(title);
    return step->title != NULL || wrong(scenario, "%s", strerror(errno));
}

static bool read_way(struct scenario *scenario, struct step *step, char **words)
{
    if (step->way != WAY_COUNT)
        return wrong(scenario, "this step has a 'write' already");
    for (int i = 0; i < WAY_COUNT; i++) {
        if (strcmp(words[0], way_names[i]) == 0)
            step->way = (enum way)i;
    }
    if (step->way == WAY_COUNT)
        return wrong(scenario, "there is no way to write '%s'", words[0]);
    return true;
}

static bool read_record(struct scenario *scenario, struct step *step, char **words)
{
    struct record *record = append(&step->records, &step->record_count, sizeof(*record));
    if (!parse_netns(scenario, words[0], record->netns))
        return false;
    if (!parse_number(words[1], INT32_MIN, INT32_MAX, &record->vrid))
        return wrong(scenario, "the Virtual Router Id '%s' is no number", words[1]);
    if (!parse_state(words[2], &record->state))
        return wrong(scenario,
                     "the state '%s' is none of Init, Backup, Master, Fault and no number",
                     words[2]);
    if (!parse_number(words[3], INT32_MIN, INT32_MAX, &record->group))
        return wrong(scenario, "the group '%s' is no number", words[3]);
    return true;
}

static bool read_expected_status(struct scenario *scenario, struct expectation *it,
                                 const char *word)
{
    it->status = parse_status(word);
    if (it->status == NULL)
        return wrong(scenario, "the status '%s' is none of Unknown, Init, Backup, Master, Fault",
                     word);
    return true;
}

static bool read_expected_group(struct scenario *scenario, struct step *step, char **words)
{
    struct expectation *it = append(&step->expectations, &step->expectation_count, sizeof(*it));
    if (!parse_number(words[1], 1, GROUP_MAX, &it->group))
        return wrong(scenario, "the group '%s' is no number from 1 to 32", words[1]);
    return read_expected_status(scenario, it, words[2]);
}

static bool read_expected_instance(struct scenario *scenario, struct step *step, char **words)
{
    struct expectation *it = append(&step->expectations, &step->expectation_count, sizeof(*it));
    if (!parse_netns(scenario, words[1], it->netns))
        return false;
    if (!parse_number(words[2], 1, VRID_MAX, &it->vrid))
        return wrong(scenario, "the Virtual Router Id '%s' is no number from 1 to 255", words[2]);
    return read_expected_status(scenario, it, words[3]);
}

/* What may stand on a line after 'step': a keyword, the second word if that is fixed, too. */
static const struct keyword {
    const char *name;
    const char *second;
    size_t words; /* behind the keyword */
    bool (*read)(struct scenario *scenario, struct step *step, char **words);
    const char *shape;
} keywords[] = {
    {"write", NULL, 1, read_way, "write WAY"},
    {"record", NULL, 4, read_record, "record NETNS VRID STATE GROUP"},
    {"expect", "group", 3, read_expected_group, "expect group GROUP STATUS"},
    {"expect", "instance", 4, read_expected_instance, "expect instance NETNS VRID STATUS"},
};

static bool read_line(struct scenario *scenario, char *line)
{
    enum { WORDS_MAX = 8 };
    char *words[WORDS_MAX + 1] = {NULL};
    size_t count = 0;
    char *rest;

    line[strcspn(line, "#")] = '\0';
    char *keyword = strtok_r(line, " \t\r\n", &rest);
    if (keyword == NULL)
        return true;
    if (strcmp(keyword, "step") == 0)
        return read_step(scenario, rest);
    while (count < WORDS_MAX && (words[count] = strtok_r(NULL, " \t\r\n", &rest)) != NULL)
        count++;
    for (size_t i = 0; i < sizeof(keywords) / sizeof(keywords[0]); i++) {
        const struct keyword *it = &keywords[i];
        if (strcmp(keyword, it->name) != 0 ||
            (it->second != NULL && (count == 0 || strcmp(words[0], it->second) != 0)))
            continue;
        if (scenario->count == 0)
            return wrong(scenario, "'%s' stands before the first step", keyword);
        if (count != it->words)
            return wrong(scenario, "'%s' has the form: %s", keyword, it->shape);
        return it->read(scenario, &scenario->steps[scenario->count - 1], words);
    }
    if (strcmp(keyword, "expect") == 0)
        return wrong(scenario, "'expect' is followed by 'group' or 'instance'");
    return wrong(scenario, "there is no '%s' in a scenario", keyword);
}

static bool unreadable(const struct scenario *scenario)
{
    fprintf(stderr, "%s: cannot be read: %s\n", scenario->file, strerror(errno));
    return false;
}

bool scenario_read(struct scenario *scenario)
{
    FILE *file = fopen(scenario->file, "re");
    char *line = NULL;
    size_t size = 0;
    bool good = true;

    if (file == NULL)
        return unreadable(scenario);
    while (good && getline(&line, &size, file) >= 0) {
        scenario->line++;
        good = read_line(scenario, line);
    }
    if (good && ferror(file))
        good = unreadable(scenario);
    else if (good && scenario->count == 0)
        good = wrong(scenario, "there is no step");
    else if (good)
        good = finish_step(scenario);
    free(line);
    fclose(file);
    return good;
}

void scenario_free(struct scenario *scenario)
{
    for (size_t i = 0; i < scenario->count; i++) {
        free(scenario->steps[i].title);
        free(scenario->steps[i].records);
        free(scenario->steps[i].expectations);
    }
    free(scenario->steps);
}
