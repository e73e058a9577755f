/* A configuration file as YAML. */
#include <stdio.h>

#include <lh_yaml.h>

/* A key, and what stands behind it in lines of its own. */
static int put_vrfs(yaml_emitter_t *emitter, yaml_event_t *event)
{
    int rc = yaml_set_var_char(emitter, event, "vrfs");
    rc |= yaml_sequence_event(emitter, event, 1);
    rc |= yaml_scalar_event_val(emitter, event, "blue");
    rc |= yaml_scalar_event_var(emitter, event, "red");
    rc |= yaml_sequence_event(emitter, event, 0);
    rc |= yaml_set_var_char(emitter, event, "ports");
    /* on one line, in spite of its name */
    rc |= yaml_block_sequence_event(emitter, event, 1);
    rc |= yaml_scalar_event_var(emitter, event, "22");
    rc |= yaml_scalar_event_var(emitter, event, "830");
    return rc | yaml_block_sequence_event(emitter, event, 0);
}

static int put_service(yaml_emitter_t *emitter, yaml_event_t *event)
{
    int rc = yaml_set_var_char(emitter, event, "ssh");
    rc |= yaml_mapping_event(emitter, event, 1);
    rc |= yaml_set_val_char(emitter, event, "host", "r1");
    rc |= yaml_set_val_str(emitter, event, "cipher", "aes");
    rc |= yaml_set_val_int(emitter, event, "port", 22);
    rc |= yaml_set_val_bool(emitter, event, "log", true);
    rc |= yaml_set_val_bool_str(emitter, event, "enable", true);
    return rc | yaml_mapping_event(emitter, event, 0);
}

/* One look at the end is enough, at all results together: where a step
 * failed the document is not whole, whatever the later ones said. */
static int write_config(FILE *file)
{
    yaml_emitter_t emitter = {0};
    yaml_event_t event;
    int rc = yaml_prepare_data(&emitter, &event, file);
    rc |= put_service(&emitter, &event);
    rc |= put_vrfs(&emitter, &event);
    /* to be called after a failure, too */
    rc |= yaml_close_data(&emitter, &event, file);
    return rc;
}

int main(void)
{
    return write_config(stdout) == 0 && fflush(stdout) == 0 ? 0 : 1;
}

/* Prints:
 * ssh:
 *     host: "r1"
 *     cipher: aes
 *     port: "22"
 *     log: "1"
 *     enable: yes
 * vrfs:
 * - "blue"
 * - red
 * ports: [22, 830]
 */
