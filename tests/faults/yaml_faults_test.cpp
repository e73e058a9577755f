// Every fault of the YAML helpers, those of libyaml's own calls included.
#include <cerrno>
#include <cstdio>

#include "support/fault_sweep.hpp"
#include "yaml/yaml_fixture.hpp"

using namespace vyt::test;

namespace {

using call = std::function<int(yaml_emitter_t *, yaml_event_t *)>;

// One file that is written: prepared by most, and closed whatever happened to it.
class Document {
  public:
    explicit Document(const Attempt &a)
        : path_(a.path("config.yaml")), file_(fopen(path_.c_str(), "w+"))
    {}
    ~Document() { fclose(file_); }
    Document(const Document &) = delete;
    Document &operator=(const Document &) = delete;

    int run(const call &one) { return one(&emitter, &event); }
    int prepare() { return yaml_prepare_data(&emitter, &event, file_); }
    int close() { return yaml_close_data(&emitter, &event, file_); }
    std::string text()
    {
        fflush(file_);
        return read_file(path_);
    }

    // A whole document, or what closing it gives.
    std::string closed()
    {
        if (const int result = close(); result != 0)
            return "closed " + shown(result);
        EXPECT_TRUE(is_zeroed(emitter));
        return text();
    }

    // That nothing can be written any more, and closing gives the emitter back.
    std::string refused()
    {
        yaml_emitter_t *e = &emitter;
        yaml_event_t *v = &event;
        for (const int result :
             {yaml_scalar_event_var(e, v, "x"), yaml_scalar_event_val(e, v, "x"),
              yaml_set_var_char(e, v, "x"), yaml_set_val_char(e, v, "x", "x"),
              yaml_set_val_int(e, v, "x", 1), yaml_set_val_bool(e, v, "x", true),
              yaml_set_val_str(e, v, "x", "x"), yaml_set_val_bool_str(e, v, "x", true),
              yaml_mapping_event(e, v, 1), yaml_mapping_event(e, v, 0),
              yaml_sequence_event(e, v, 1), yaml_sequence_event(e, v, 0),
              yaml_block_sequence_event(e, v, 1), yaml_block_sequence_event(e, v, 0)})
            EXPECT_EQ(result, -1);
        EXPECT_EQ(close(), -1);
        EXPECT_TRUE(is_zeroed(emitter));
        return "all refused";
    }

    yaml_emitter_t emitter = {};
    yaml_event_t event = {};

  private:
    std::string path_;
    FILE *file_;
};

constexpr const char *dead = "-1, all refused";

// Scalars and pairs -------------------------------------------------------------------------------

// What one helper writes where a key is due, and what completes it.
struct scalar_writer {
    const char *function;
    call swept;
    call rest;
    std::string text;
    bool is_pair;
};

int no_rest(yaml_emitter_t *, yaml_event_t *)
{
    return 0;
}

int value(yaml_emitter_t *e, yaml_event_t *v)
{
    return yaml_scalar_event_val(e, v, "x");
}

int empty_block(yaml_emitter_t *e, yaml_event_t *v)
{
    const int started = yaml_mapping_event(e, v, 1);
    return started != 0 ? started : yaml_mapping_event(e, v, 0);
}

const std::vector<scalar_writer> scalar_writers = {
    {"yaml_scalar_event_var", [](auto *e, auto *v) { return yaml_scalar_event_var(e, v, "k"); },
     value, "k: \"x\"\n", false},
    {"yaml_scalar_event_val", [](auto *e, auto *v) { return yaml_scalar_event_val(e, v, "k"); },
     value, "\"k\": \"x\"\n", false},
    {"yaml_set_var_char", [](auto *e, auto *v) { return yaml_set_var_char(e, v, "k"); },
     empty_block, "k: {}\n", false},
    {"yaml_set_val_char", [](auto *e, auto *v) { return yaml_set_val_char(e, v, "k", "x"); },
     no_rest, "k: \"x\"\n", true},
    {"yaml_set_val_int", [](auto *e, auto *v) { return yaml_set_val_int(e, v, "k", 22); }, no_rest,
     "k: \"22\"\n", true},
    {"yaml_set_val_bool", [](auto *e, auto *v) { return yaml_set_val_bool(e, v, "k", true); },
     no_rest, "k: \"1\"\n", true},
    {"yaml_set_val_str", [](auto *e, auto *v) { return yaml_set_val_str(e, v, "k", "x"); }, no_rest,
     "k: x\n", true},
    {"yaml_set_val_bool_str",
     [](auto *e, auto *v) { return yaml_set_val_bool_str(e, v, "k", true); }, no_rest, "k: yes\n",
     true},
};

// As many as fill libyaml's buffer of 16 kilobytes to its brim behind `a: "1"` and `f: "`, so that
// the next byte has it written out.
const std::string filler(16367, 'f');

std::string without_filler(const std::string &text)
{
    const size_t at = text.find(filler);
    return at == std::string::npos ? text : text.substr(0, at) + "..." + text.substr(at + 16367);
}

// A refused text leaves the emitter usable: the helper is called again, or, where a pair's key
// stands already, another one gives the value.
std::string write_scalars(Attempt &a, const scalar_writer &w, bool into_full_buffer)
{
    Document d(a);
    EXPECT_EQ(d.prepare(), 0);
    EXPECT_EQ(yaml_set_val_int(&d.emitter, &d.event, "a", 1), 0);
    EXPECT_EQ(yaml_set_var_char(&d.emitter, &d.event, "f"), 0);
    const std::string other = into_full_buffer ? filler : "short";
    EXPECT_EQ(yaml_scalar_event_val(&d.emitter, &d.event, other.c_str()), 0);
    const int result = a.faulted([&] { return d.run(w.swept); });
    std::string outcome = shown(result) + ", ";
    if (d.emitter.error != YAML_NO_ERROR)
        return outcome + d.refused();
    if (result != 0) {
        const bool key_stands = w.is_pair && a.calls().at("malloc") == 2;
        EXPECT_EQ(
            key_stands ? yaml_scalar_event_val(&d.emitter, &d.event, "other") : d.run(w.swept), 0);
    }
    EXPECT_EQ(d.run(w.rest), 0);
    return outcome + without_filler(d.closed());
}

scenario of_scalars(const scalar_writer &w, bool into_full_buffer)
{
    const std::string before =
        into_full_buffer ? "a: \"1\"\nf: \"...\"\n" : "a: \"1\"\nf: \"short\"\n";
    scenario s = {
        .function = w.function,
        .way = into_full_buffer ? "into a full buffer" : "into memory",
        .body = [w, into_full_buffer](Attempt &a) { return write_scalars(a, w, into_full_buffer); },
        .outcome = "0, " + before + w.text,
        .faults = {fails("malloc:1", "-1, " + before + w.text)},
        .also = "libyaml-0.so"};
    if (w.is_pair)
        s.faults.push_back(fails("malloc:2", "-1, " + before + "k: \"other\"\n"));
    if (into_full_buffer) {
        s.faults.push_back(fails("fwrite", dead));
        s.faults.push_back(shortened("fwrite", dead));
    }
    return s;
}

// Mappings and sequences --------------------------------------------------------------------------

using block_helper = int (*)(yaml_emitter_t *, yaml_event_t *, int);

// The helper starts, or ends, a block behind an item that libyaml holds back until it sees what
// follows; the item is so long that writing it out does not wait for the end.
std::string write_block(Attempt &a, block_helper helper, bool start)
{
    Document d(a);
    yaml_emitter_t *e = &d.emitter;
    yaml_event_t *v = &d.event;
    const std::string item(20000, 'i');
    EXPECT_EQ(d.prepare(), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "a", 1), 0);
    EXPECT_EQ(yaml_set_var_char(e, v, "b"), 0);
    EXPECT_EQ((start ? &yaml_sequence_event : helper)(e, v, 1), 0);
    EXPECT_TRUE(start || helper != yaml_mapping_event || yaml_set_var_char(e, v, "k") == 0);
    EXPECT_EQ(yaml_scalar_event_val(e, v, item.c_str()), 0);
    const int result = a.faulted([&] { return helper(e, v, start ? 1 : 0); });
    std::string outcome = shown(result) + ", ";
    if (result != 0)
        return outcome + d.refused();
    EXPECT_TRUE(!start || (helper(e, v, 0) == 0 && yaml_sequence_event(e, v, 0) == 0));
    std::string text = d.closed();
    const size_t at = text.find(item);
    EXPECT_NE(at, std::string::npos);
    return outcome + text.replace(at, item.size(), "...");
}

// How many levels were opened, each in the one before; goes on where a call was refused.
struct deep {
    static constexpr int levels = 20;
    block_helper helper;
    int level = 0;

    int open(yaml_emitter_t *e, yaml_event_t *v)
    {
        for (; level < levels; level++) {
            if (helper == yaml_mapping_event && yaml_set_var_char(e, v, "k") != 0)
                return -1;
            if (helper(e, v, 1) != 0)
                return -1;
        }
        return 0;
    }
};

// Deep enough for libyaml's stacks to grow.
std::string write_deeply(Attempt &a, block_helper helper)
{
    Document d(a);
    deep blocks = {helper};
    EXPECT_EQ(d.prepare(), 0);
    EXPECT_TRUE(helper == yaml_mapping_event ||
                yaml_set_var_char(&d.emitter, &d.event, "list") == 0);
    const int result = a.faulted([&] { return blocks.open(&d.emitter, &d.event); });
    std::string outcome = shown(result) + ", ";
    if (d.emitter.error != YAML_NO_ERROR)
        return outcome + d.refused();
    EXPECT_TRUE(result == 0 || blocks.open(&d.emitter, &d.event) == 0);
    for (int level = 0; level < deep::levels; level++)
        EXPECT_EQ(helper(&d.emitter, &d.event, 0), 0);
    int opened = 0;
    for (const std::string &event : read_back(d.closed()))
        opened += event.compare(0, 4, helper == yaml_mapping_event ? "+MAP" : "+SEQ") == 0;
    return outcome + shown(opened - (helper == yaml_mapping_event)) + " levels";
}

std::vector<scenario> of_blocks()
{
    struct block {
        const char *function;
        block_helper helper;
        std::string started;
        std::string ended;
    };
    const block blocks[] = {
        {"yaml_mapping_event", yaml_mapping_event, "- \"...\"\n- {}\n", "    k: \"...\"\n"},
        {"yaml_sequence_event", yaml_sequence_event, "- \"...\"\n- []\n", "- \"...\"\n"},
        {"yaml_block_sequence_event", yaml_block_sequence_event, "- \"...\"\n- []\n", ""},
    };
    std::vector<scenario> all;
    for (const block &b : blocks) {
        const std::string flow = " [\"...\"]\n"; // on the key's own line
        const bool is_flow = b.ended.empty();
        all.push_back({.function = b.function,
                       .way = "starting one",
                       .body = [b](Attempt &a) { return write_block(a, b.helper, true); },
                       .outcome = "0, a: \"1\"\nb:\n" + b.started,
                       .faults = {fails("fwrite", dead), shortened("fwrite", dead)},
                       .also = "libyaml-0.so"});
        all.push_back({.function = b.function,
                       .way = "ending one",
                       .body = [b](Attempt &a) { return write_block(a, b.helper, false); },
                       .outcome = "0, a: \"1\"\nb:" + (is_flow ? flow : "\n" + b.ended),
                       .faults = {fails("fwrite", dead), shortened("fwrite", dead)},
                       .also = "libyaml-0.so"});
        all.push_back({.function = b.function,
                       .way = "many in each other",
                       .body = [b](Attempt &a) { return write_deeply(a, b.helper); },
                       .outcome = "0, 20 levels",
                       .faults = {fails("realloc", dead)},
                       .also = "libyaml-0.so"});
        if (b.helper == yaml_mapping_event) // their keys are texts
            all.back().faults.push_back(fails("malloc", "-1, 20 levels"));
    }
    return all;
}

// Preparing and closing ---------------------------------------------------------------------------

std::string prepare(Attempt &a)
{
    Document d(a);
    const int result = a.faulted([&] { return d.prepare(); });
    return shown(result) + ", " + (result == 0 ? d.closed() : d.refused());
}

// The whole lines in the file. After a failed write nothing is promised of them.
std::string close_after(Attempt &a, const call &written)
{
    Document d(a);
    EXPECT_EQ(d.prepare(), 0);
    d.run(written);
    const int result = a.faulted([&] { return d.close(); });
    EXPECT_TRUE(is_zeroed(d.emitter));
    const std::string text = d.text();
    EXPECT_EQ(d.close(), -1);
    EXPECT_EQ(d.text(), text);
    return shown(result) + (a.happened() ? "" : ", " + text.substr(0, text.rfind('\n') + 1));
}

// An end where none may be: the emitter takes nothing more.
int pair_and_misplaced_end(yaml_emitter_t *e, yaml_event_t *v)
{
    EXPECT_EQ(yaml_set_val_int(e, v, "k", 1), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "l", 2), 0);
    EXPECT_EQ(yaml_sequence_event(e, v, 0), -1);
    return -1;
}

scenario of_closing(const char *way, const call &written, const std::string &outcome)
{
    return {.function = "yaml_close_data",
            .way = way,
            .body = [written](Attempt &a) { return close_after(a, written); },
            .outcome = outcome,
            .faults = {fails("fwrite", "-1"), shortened("fwrite", "-1")},
            .also = "libyaml-0.so"};
}

std::vector<scenario> scenarios()
{
    std::vector<scenario> all;
    for (const scalar_writer &w : scalar_writers) {
        all.push_back(of_scalars(w, false));
        all.push_back(of_scalars(w, true));
    }
    for (scenario &s : of_blocks())
        all.push_back(std::move(s));
    all.push_back({.function = "yaml_prepare_data",
                   .body = prepare,
                   .outcome = "0, {}\n",
                   .faults = {fails("malloc", dead), fails("strdup", dead)},
                   .also = "libyaml-0.so"});
    all.push_back(of_closing(
        "a document", [](auto *e, auto *v) { return yaml_set_val_int(e, v, "k", 1); },
        "0, k: \"1\"\n"));
    all.push_back(of_closing("an empty document", no_rest, "0, {}\n"));
    all.push_back(
        of_closing("a refused document", pair_and_misplaced_end, "-1, k: \"1\"\nl: \"2\"\n"));
    return all;
}

const bool swept = register_fault_sweep("FaultsOfYaml", scenarios());

} // namespace
