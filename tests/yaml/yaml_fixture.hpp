// YAML files written through the helpers, and two readers that share no code to hold them against.
#pragma once

#include "lh_yaml.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>
#include <unistd.h>

#include "support/log_capture.hpp"
#include "support/process.hpp"

namespace vyt::test {

using strings = std::vector<std::string>;

inline std::string on_one_line(const std::string &text)
{
    std::string line;
    for (const char c : text)
        line += c == '\n' ? "\\n" : c == '\\' ? "\\\\" : std::string(1, c);
    return line;
}

inline std::string describe(const yaml_event_t &event)
{
    switch (event.type) {
    case YAML_DOCUMENT_START_EVENT:
        return event.data.document_start.implicit ? "+DOC" : "+DOC ---";
    case YAML_DOCUMENT_END_EVENT:
        return event.data.document_end.implicit ? "-DOC" : "-DOC ...";
    case YAML_MAPPING_START_EVENT:
        return event.data.mapping_start.style == YAML_FLOW_MAPPING_STYLE ? "+MAP {}" : "+MAP";
    case YAML_MAPPING_END_EVENT:
        return "-MAP";
    case YAML_SEQUENCE_START_EVENT:
        return event.data.sequence_start.style == YAML_FLOW_SEQUENCE_STYLE ? "+SEQ []" : "+SEQ";
    case YAML_SEQUENCE_END_EVENT:
        return "-SEQ";
    case YAML_SCALAR_EVENT: {
        const auto &scalar = event.data.scalar;
        const auto *text = reinterpret_cast<const char *>(scalar.value);
        const char *style = scalar.style == YAML_DOUBLE_QUOTED_SCALAR_STYLE   ? "\""
                            : scalar.style == YAML_SINGLE_QUOTED_SCALAR_STYLE ? "'"
                                                                              : ":";
        return style + on_one_line(std::string(text, scalar.length));
    }
    default:
        return "unexpected event " + std::to_string(event.type);
    }
}

// The document's events as libyaml's parser reads them: ":text" is a plain scalar, "\"text" a
// double-quoted one, "'text" a single-quoted one; + and - are starts and ends. A text that cannot
// be read ends with "error: ...".
inline strings read_back(const std::string &text)
{
    yaml_parser_t parser;
    yaml_parser_initialize(&parser);
    yaml_parser_set_input_string(&parser, reinterpret_cast<const unsigned char *>(text.data()),
                                 text.size());
    strings events;
    for (bool more = true; more;) {
        yaml_event_t event;
        if (yaml_parser_parse(&parser, &event) == 0) {
            events.push_back(std::string("error: ") + parser.problem);
            break;
        }
        more = event.type != YAML_STREAM_END_EVENT;
        if (more && event.type != YAML_STREAM_START_EVENT)
            events.push_back(describe(event));
        yaml_event_delete(&event);
    }
    yaml_parser_delete(&parser);
    return events;
}

// What a Python program prints for the file; its loader shares no code with libyaml.
inline std::string python(const std::string &program, const std::string &path)
{
    TempDir dir;
    write_file(dir / "program.py", "import json, sys, yaml\n" + program);
    FILE *out = popen(("python3 " + (dir / "program.py") + " " + path).c_str(), "r");
    std::string text;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), out)) > 0;)
        text.append(chunk, n);
    EXPECT_EQ(pclose(out), 0) << text;
    return text;
}

inline bool python_is_missing()
{
    return system("python3 -c 'import yaml' 2>/dev/null") != 0;
}

#define NEEDS_PYTHON()                                                                             \
    if (python_is_missing())                                                                       \
    GTEST_SKIP() << "python3-yaml is not installed: the second reader is missing"

// The same list as read_back() makes, read by Python.
inline strings read_by_python(const std::string &path)
{
    const std::string out = python(R"(
def describe(event):
    if isinstance(event, yaml.ScalarEvent):
        text = event.value.replace('\\', '\\\\').replace('\n', '\\n')
        return (event.style or ':') + text
    if isinstance(event, yaml.DocumentStartEvent):
        return '+DOC ---' if event.explicit else '+DOC'
    if isinstance(event, yaml.DocumentEndEvent):
        return '-DOC ...' if event.explicit else '-DOC'
    if isinstance(event, yaml.MappingStartEvent):
        return '+MAP {}' if event.flow_style else '+MAP'
    if isinstance(event, yaml.SequenceStartEvent):
        return '+SEQ []' if event.flow_style else '+SEQ'
    return '-MAP' if isinstance(event, yaml.MappingEndEvent) else '-SEQ'

for event in yaml.parse(open(sys.argv[1], 'rb'), Loader=yaml.SafeLoader):
    if not isinstance(event, (yaml.StreamStartEvent, yaml.StreamEndEvent)):
        sys.stdout.buffer.write((describe(event) + '\n').encode())
)",
                                   path);
    strings events;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        events.push_back(line);
    return events;
}

inline bool is_zeroed(const yaml_emitter_t &emitter)
{
    static const yaml_emitter_t zeroed = {};
    return memcmp(&emitter, &zeroed, sizeof(zeroed)) == 0;
}

// An emitter and a file that are released whatever the test did to them.
class Yaml : public LogTest {
  protected:
    Yaml() : file(fopen(path.c_str(), "w+")) {}
    ~Yaml() override
    {
        yaml_emitter_delete(&emitter);
        fclose(file);
    }

    int prepare() { return yaml_prepare_data(&emitter, &event, file); }
    int close() { return yaml_close_data(&emitter, &event, file); }
    std::string text()
    {
        fflush(file);
        return read_file(path);
    }
    void empty_file()
    {
        rewind(file);
        EXPECT_EQ(ftruncate(fileno(file), 0), 0);
    }
    // The text of a document whose root holds what the body writes.
    std::string written_by(const std::function<void()> &body)
    {
        empty_file();
        EXPECT_EQ(prepare(), 0);
        body();
        EXPECT_EQ(close(), 0);
        EXPECT_TRUE(is_zeroed(emitter));
        return text();
    }
    // From now on the file is one that takes no byte and says so at once.
    void open_full_file()
    {
        fclose(file);
        file = fopen("/dev/full", "w");
        setvbuf(file, nullptr, _IONBF, 0);
    }

    TempDir dir;
    const std::string path = dir / "config.yaml";
    FILE *file;
    yaml_emitter_t emitter = {};
    yaml_event_t event = {};
    yaml_emitter_t *const e = &emitter;
    yaml_event_t *const v = &event;
};

} // namespace vyt::test
