/*
 * yaml_writer: writes the configuration of an imagined access daemon as a YAML file.
 *
 * Shows the YAML helpers (lh_yaml.h): set-up and closing, each kind of value, nested mappings and
 * sequences, and how failures are gathered; and how a file is replaced so that no reader sees half
 * of it.
 *
 * Build: cc -std=c11 yaml_writer.c -o yaml_writer -lVYThelpers -lyaml
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

#include "lh_yaml.h"

static const char usage_line[] = "usage: yaml_writer FILE HOSTNAME PORT [VRF]...\n";

static const char help[] =
    "\n"
    "Writes the configuration of an imagined access daemon: its host name, its port (1 to\n"
    "65535) and the VRFs that it serves. FILE is replaced in one go.\n"
    "\n"
    "  -h, --help  show this text\n"
    "\n"
    "Ends with 0 when all went well, with 1 when FILE could not be written, with 2 for wrong\n"
    "arguments.\n";

struct config {
    const char *hostname;
    int port;
    char **vrfs;
    int vrf_count;
};

/* Each helper gives 0 or -1, and does no harm after another one has failed. So the results are
   gathered and looked at once; a file in which any step failed is not to be used. */
static int write_listener(yaml_emitter_t *emitter, yaml_event_t *event, const struct config *config)
{
    int rc = yaml_set_var_char(emitter, event, "listener"); /* a lone key, then its mapping */
    rc |= yaml_mapping_event(emitter, event, 1);
    rc |= yaml_set_val_int(emitter, event, "port", config->port); /* "22": readers see a string */
    rc |= yaml_set_val_str(emitter, event, "backlog", "128");     /* 128: readers see a number */
    rc |= yaml_set_val_bool_str(emitter, event, "enable", true);  /* yes: readers see a boolean */
    rc |= yaml_set_var_char(emitter, event, "families");
    rc |= yaml_block_sequence_event(emitter, event, 1); /* on one line, in spite of its name */
    rc |= yaml_scalar_event_var(emitter, event, "ipv4");
    rc |= yaml_scalar_event_var(emitter, event, "ipv6");
    rc |= yaml_block_sequence_event(emitter, event, 0);
    rc |= yaml_mapping_event(emitter, event, 0);
    return rc;
}

static int write_vrfs(yaml_emitter_t *emitter, yaml_event_t *event, const struct config *config)
{
    int rc = yaml_set_var_char(emitter, event, "vrfs");
    rc |= yaml_sequence_event(emitter, event, 1); /* one item a line */
    for (int i = 0; i < config->vrf_count; i++)
        rc |= yaml_scalar_event_val(emitter, event, config->vrfs[i]);
    rc |= yaml_sequence_event(emitter, event, 0);
    return rc;
}

static int write_document(FILE *file, const struct config *config)
{
    yaml_emitter_t emitter = {0};
    yaml_event_t event;

    int rc = yaml_prepare_data(&emitter, &event, file);
    rc |= yaml_set_val_char(&emitter, &event, "hostname", config->hostname);
    rc |= write_listener(&emitter, &event, config);
    rc |= write_vrfs(&emitter, &event, config);
    /* Always, also after a failure: this releases the emitter. */
    rc |= yaml_close_data(&emitter, &event, file);
    return rc;
}

/* Writes aside and renames: whoever reads `path` has the old file or the new one. */
static int replace(const char *path, const struct config *config)
{
    char *aside = NULL;
    if (asprintf(&aside, "%s.new", path) < 0)
        return -1;
    FILE *file = fopen(aside, "we");
    if (file == NULL) {
        free(aside);
        return -1;
    }
    int rc = write_document(file, config);
    /* On the disk before the name is: else a power cut might leave the new name with nothing in it. */
    if (fflush(file) != 0 || fsync(fileno(file)) != 0)
        rc = -1;
    if (fclose(file) != 0)
        rc = -1;
    if (rc == 0)
        rc = rename(aside, path);
    if (rc != 0) {
        int error = errno;
        unlink(aside);
        errno = error;
    }
    free(aside);
    return rc;
}

static int usage(void)
{
    fputs(usage_line, stderr);
    return 2;
}

int main(int argc, char **argv)
{
    static const struct option options[] = {{"help", no_argument, NULL, 'h'}, {NULL, 0, NULL, 0}};
    int option;

    while ((option = getopt_long(argc, argv, "+h", options, NULL)) != -1) {
        if (option != 'h')
            return usage();
        fputs(usage_line, stdout);
        fputs(help, stdout);
        return 0;
    }
    if (argc - optind < 3)
        return usage();
    char *end;
    long port = strtol(argv[optind + 2], &end, 10);
    if (*end != '\0' || port < 1 || port > 65535) {
        fprintf(stderr, "yaml_writer: %s: a port is a number from 1 to 65535\n", argv[optind + 2]);
        return usage();
    }
    const struct config config = {.hostname = argv[optind + 1],
                                  .port = (int)port,
                                  .vrfs = argv + optind + 3,
                                  .vrf_count = argc - optind - 3};

    openlog("yaml_writer", LOG_PERROR, LOG_USER); /* the library's lines on standard error, too */
    errno = 0;                                    /* a text that YAML refuses fails without one */
    if (replace(argv[optind], &config) != 0) {
        fprintf(stderr, "yaml_writer: cannot write %s: %s\n", argv[optind],
                errno != 0 ? strerror(errno) : "a text is too long or is not UTF-8");
        return 1;
    }
    return 0;
}
