#include <climits>
#include <cstdio>
#include <cstring>

#include "core/errno_saver.hpp"
#include "core/log.hpp"
#include "lh_yaml.h"

using namespace vyt;

namespace {

// Room for a text and its end.
constexpr size_t key_size = 64;
constexpr size_t value_size = 1024;
constexpr size_t number_size = 16;
constexpr size_t lone_key_size = 512;

constexpr int indentation = 4;
constexpr int line_width = 65535; // in effect, lines are never folded

// The style that daemons have in their files.
static_assert(YAML_FLOW_SEQUENCE_STYLE == 2);

bool fits(const char *text, size_t size)
{
    return strnlen(text, size) < size;
}

// A record that holds an emitter with somewhere to write to. libyaml writes through a released
// record's queue and asserts that there is an output.
bool is_set_up(const yaml_emitter_t *emitter)
{
    return emitter->events.start != nullptr && emitter->write_handler != nullptr;
}

// A refused event stays at the head of libyaml's queue, half worked off: another emit would work it
// off again and may pop a stack that is empty by then.
bool can_emit(const yaml_emitter_t *emitter)
{
    return is_set_up(emitter) && emitter->error == YAML_NO_ERROR;
}

// libyaml asserts that the encoding is known, which it is from the start of the stream on.
bool can_flush(const yaml_emitter_t *emitter)
{
    return is_set_up(emitter) && emitter->encoding != YAML_ANY_ENCODING;
}

// Takes the event over: libyaml releases what it holds, whether or not the emit succeeds.
int emit(yaml_emitter_t *emitter, yaml_event_t *event)
{
    if (!can_emit(emitter)) {
        yaml_event_delete(event);
        return -1;
    }
    return yaml_emitter_emit(emitter, event) != 0 ? 0 : -1;
}

int emit_scalar(yaml_emitter_t *emitter, yaml_event_t *event, const char *text,
                yaml_scalar_style_t style)
{
    const size_t length = strlen(text);
    if (length > INT_MAX)
        return -1;
    if (yaml_scalar_event_initialize(event, nullptr, nullptr,
                                     reinterpret_cast<const yaml_char_t *>(text),
                                     static_cast<int>(length), 1, 1, style) == 0)
        return -1;
    return emit(emitter, event);
}

int emit_pair(yaml_emitter_t *emitter, yaml_event_t *event, const char *var, const char *val,
              yaml_scalar_style_t style)
{
    if (!fits(var, key_size) || !fits(val, value_size))
        return -1;
    if (emit_scalar(emitter, event, var, YAML_PLAIN_SCALAR_STYLE) != 0)
        return -1;
    return emit_scalar(emitter, event, val, style);
}

int emit_sequence(yaml_emitter_t *emitter, yaml_event_t *event, int start,
                  yaml_sequence_style_t style)
{
    const int made = start != 0
                         ? yaml_sequence_start_event_initialize(event, nullptr, nullptr, 1, style)
                         : yaml_sequence_end_event_initialize(event);
    return made != 0 ? emit(emitter, event) : -1;
}

int start_document(yaml_emitter_t *emitter, yaml_event_t *event)
{
    if (yaml_document_start_event_initialize(event, nullptr, nullptr, nullptr, 1) == 0)
        return -1;
    return emit(emitter, event);
}

int end_document(yaml_emitter_t *emitter, yaml_event_t *event)
{
    if (yaml_document_end_event_initialize(event, 1) == 0)
        return -1;
    return emit(emitter, event);
}

} // namespace

int yaml_scalar_event_var(yaml_emitter_t *emitter, yaml_event_t *event, const char *str)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(str))
        return -1;
    return emit_scalar(emitter, event, str, YAML_PLAIN_SCALAR_STYLE);
}

int yaml_scalar_event_val(yaml_emitter_t *emitter, yaml_event_t *event, const char *str)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(str))
        return -1;
    return emit_scalar(emitter, event, str, YAML_DOUBLE_QUOTED_SCALAR_STYLE);
}

int yaml_set_var_char(yaml_emitter_t *emitter, yaml_event_t *event, const char *var)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(var))
        return -1;
    if (!fits(var, lone_key_size))
        return -1;
    return emit_scalar(emitter, event, var, YAML_PLAIN_SCALAR_STYLE);
}

int yaml_set_val_char(yaml_emitter_t *emitter, yaml_event_t *event, const char *var,
                      const char *val)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(var) || PTR_IS_NULL(val))
        return -1;
    return emit_pair(emitter, event, var, val, YAML_DOUBLE_QUOTED_SCALAR_STYLE);
}

int yaml_set_val_int(yaml_emitter_t *emitter, yaml_event_t *event, const char *var, int val)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(var))
        return -1;
    char number[number_size];
    snprintf(number, sizeof(number), "%d", val); // the longest int takes 11 characters
    // Deliberate: numbers are quoted, for the daemons that read every value as a string.
    return emit_pair(emitter, event, var, number, YAML_DOUBLE_QUOTED_SCALAR_STYLE);
}

int yaml_set_val_bool(yaml_emitter_t *emitter, yaml_event_t *event, const char *var, bool val)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(var))
        return -1;
    return emit_pair(emitter, event, var, val ? "1" : "0", YAML_DOUBLE_QUOTED_SCALAR_STYLE);
}

int yaml_set_val_str(yaml_emitter_t *emitter, yaml_event_t *event, const char *var, const char *val)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(var) || PTR_IS_NULL(val))
        return -1;
    // Deliberate: plain, for the readers that want words such as `any` or `22` without quotes.
    return emit_pair(emitter, event, var, val, YAML_PLAIN_SCALAR_STYLE);
}

int yaml_set_val_bool_str(yaml_emitter_t *emitter, yaml_event_t *event, const char *var, bool val)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(var))
        return -1;
    return emit_pair(emitter, event, var, val ? "yes" : "no", YAML_PLAIN_SCALAR_STYLE);
}

int yaml_mapping_event(yaml_emitter_t *emitter, yaml_event_t *event, int start)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event))
        return -1;
    const int made = start != 0 ? yaml_mapping_start_event_initialize(event, nullptr, nullptr, 1,
                                                                      YAML_ANY_MAPPING_STYLE)
                                : yaml_mapping_end_event_initialize(event);
    return made != 0 ? emit(emitter, event) : -1;
}

int yaml_sequence_event(yaml_emitter_t *emitter, yaml_event_t *event, int start)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event))
        return -1;
    return emit_sequence(emitter, event, start, YAML_ANY_SEQUENCE_STYLE);
}

int yaml_block_sequence_event(yaml_emitter_t *emitter, yaml_event_t *event, int start)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event))
        return -1;
    // Deliberate: flow style in spite of the name, for the files that daemons write with it today.
    return emit_sequence(emitter, event, start, YAML_FLOW_SEQUENCE_STYLE);
}

int yaml_prepare_data(yaml_emitter_t *emitter, yaml_event_t *event, FILE *config_file)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(config_file))
        return -1;
    if (yaml_emitter_initialize(emitter) == 0)
        return -1;
    yaml_emitter_set_output_file(emitter, config_file);
    yaml_emitter_set_width(emitter, line_width);
    yaml_emitter_set_indent(emitter, indentation);
    if (yaml_emitter_open(emitter) == 0 || start_document(emitter, event) != 0)
        return -1;
    return yaml_mapping_event(emitter, event, 1);
}

int yaml_close_data(yaml_emitter_t *emitter, yaml_event_t *event, FILE *config_file)
{
    if (PTR_IS_NULL(emitter) || PTR_IS_NULL(event) || PTR_IS_NULL(config_file))
        return -1;
    const bool ended =
        yaml_mapping_event(emitter, event, 0) == 0 && end_document(emitter, event) == 0;
    const bool flushed = can_flush(emitter) && yaml_emitter_flush(emitter) != 0;
    // libyaml asserts that what is closed was opened.
    const bool closed =
        can_emit(emitter) && emitter->opened != 0 && yaml_emitter_close(emitter) != 0;
    const errno_saver saver;
    yaml_emitter_delete(emitter);
    return ended && flushed && closed ? 0 : -1;
}
