// What the helpers refuse, and that no failure of theirs, of libyaml or of the file does any harm.
#include <cerrno>
#include <random>

#include "support/faults.hpp"
#include "yaml/yaml_fixture.hpp"

using namespace vyt::test;

namespace {

// Every helper that writes a key and a value.
using pair_writer = int (*)(yaml_emitter_t *, yaml_event_t *, const char *);
constexpr pair_writer pair_writers[] = {
    [](auto *e, auto *v, const char *key) { return yaml_set_val_char(e, v, key, "x"); },
    [](auto *e, auto *v, const char *key) { return yaml_set_val_int(e, v, key, 1); },
    [](auto *e, auto *v, const char *key) { return yaml_set_val_bool(e, v, key, true); },
    [](auto *e, auto *v, const char *key) { return yaml_set_val_str(e, v, key, "x"); },
    [](auto *e, auto *v, const char *key) { return yaml_set_val_bool_str(e, v, key, true); },
};

// Every helper but those that prepare and close.
using step = int (*)(yaml_emitter_t *, yaml_event_t *);
constexpr step steps[] = {
    [](auto *e, auto *v) { return yaml_scalar_event_var(e, v, "plain"); },
    [](auto *e, auto *v) { return yaml_scalar_event_val(e, v, "quoted"); },
    [](auto *e, auto *v) { return yaml_set_var_char(e, v, "lone"); },
    [](auto *e, auto *v) { return yaml_set_val_char(e, v, "k", "x"); },
    [](auto *e, auto *v) { return yaml_set_val_int(e, v, "k", 1); },
    [](auto *e, auto *v) { return yaml_set_val_bool(e, v, "k", false); },
    [](auto *e, auto *v) { return yaml_set_val_str(e, v, "k", "x"); },
    [](auto *e, auto *v) { return yaml_set_val_bool_str(e, v, "k", false); },
    [](auto *e, auto *v) { return yaml_mapping_event(e, v, 1); },
    [](auto *e, auto *v) { return yaml_mapping_event(e, v, 0); },
    [](auto *e, auto *v) { return yaml_sequence_event(e, v, 1); },
    [](auto *e, auto *v) { return yaml_sequence_event(e, v, 0); },
    [](auto *e, auto *v) { return yaml_block_sequence_event(e, v, 1); },
    [](auto *e, auto *v) { return yaml_block_sequence_event(e, v, 0); },
};

// Every helper, with what its third argument (or its fourth, after a good third one) is called.
struct checked_call {
    const char *name;
    const char *third;
    int (*call)(yaml_emitter_t *, yaml_event_t *, const char *text, FILE *file);
};
constexpr checked_call checked_calls[] = {
    {"yaml_scalar_event_var", "str",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_scalar_event_var(e, v, x); }},
    {"yaml_scalar_event_val", "str",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_scalar_event_val(e, v, x); }},
    {"yaml_set_var_char", "var",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_set_var_char(e, v, x); }},
    {"yaml_set_val_char", "var",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_set_val_char(e, v, x, x); }},
    {"yaml_set_val_char", "val",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_set_val_char(e, v, "k", x); }},
    {"yaml_set_val_int", "var",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_set_val_int(e, v, x, 1); }},
    {"yaml_set_val_bool", "var",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_set_val_bool(e, v, x, true); }},
    {"yaml_set_val_str", "var",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_set_val_str(e, v, x, x); }},
    {"yaml_set_val_str", "val",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_set_val_str(e, v, "k", x); }},
    {"yaml_set_val_bool_str", "var",
     [](auto *e, auto *v, const char *x, FILE *) { return yaml_set_val_bool_str(e, v, x, true); }},
    {"yaml_mapping_event", nullptr,
     [](auto *e, auto *v, const char *, FILE *) { return yaml_mapping_event(e, v, 1); }},
    {"yaml_sequence_event", nullptr,
     [](auto *e, auto *v, const char *, FILE *) { return yaml_sequence_event(e, v, 1); }},
    {"yaml_block_sequence_event", nullptr,
     [](auto *e, auto *v, const char *, FILE *) { return yaml_block_sequence_event(e, v, 1); }},
    {"yaml_prepare_data", "config_file",
     [](auto *e, auto *v, const char *, FILE *f) { return yaml_prepare_data(e, v, f); }},
    {"yaml_close_data", "config_file",
     [](auto *e, auto *v, const char *, FILE *f) { return yaml_close_data(e, v, f); }},
};

// libyaml pops its stacks without looking.
bool stacks_are_sound(const yaml_emitter_t &emitter)
{
    return emitter.indents.top >= emitter.indents.start &&
           emitter.states.top >= emitter.states.start && emitter.flow_level >= 0;
}

} // namespace

class YamlFailure : public Yaml {
  protected:
    // Every helper refuses without a line, without writing, and without keeping the event.
    void expect_all_refuse()
    {
        for (const step &s : steps) {
            EXPECT_EQ(s(e, v), -1);
            EXPECT_EQ(event.type, YAML_NO_EVENT);
        }
    }
    void expect_close_fails()
    {
        EXPECT_EQ(close(), -1);
        EXPECT_TRUE(is_zeroed(emitter));
    }
};

// Arguments ----------------------------------------------------------------------------------------

TEST_F(YamlFailure, NullArgumentsAreLoggedInTheirOrder)
{
    ASSERT_EQ(prepare(), 0);
    const yaml_emitter_t before = emitter;
    for (const checked_call &helper : checked_calls) {
        const std::string line = std::string(helper.name) + ": PTR_IS_NULL: ";
        errno = 77;
        EXPECT_EQ(helper.call(nullptr, nullptr, nullptr, nullptr), -1);
        EXPECT_LINES(line + "emitter");
        EXPECT_EQ(helper.call(e, nullptr, nullptr, nullptr), -1);
        EXPECT_LINES(line + "event");
        if (helper.third != nullptr) {
            EXPECT_EQ(helper.call(e, v, nullptr, nullptr), -1);
            EXPECT_LINES(line + helper.third);
        }
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(memcmp(&emitter, &before, sizeof(before)), 0) << helper.name;
    }
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(text(), "{}\n");
}

TEST_F(YamlFailure, KeysOfPairsHaveRoomFor63Bytes)
{
    const std::string fitting(63, 'k'), too_long(64, 'k'), endless(100000, 'k');
    for (const pair_writer &write : pair_writers) {
        const std::string written = written_by([&] {
            const yaml_emitter_t before = emitter;
            errno = 77;
            EXPECT_EQ(write(e, v, too_long.c_str()), -1);
            EXPECT_EQ(write(e, v, endless.c_str()), -1);
            EXPECT_EQ(errno, 77);
            EXPECT_EQ(memcmp(&emitter, &before, sizeof(before)), 0) << "something was emitted";
            EXPECT_EQ(write(e, v, fitting.c_str()), 0);
        });
        const strings events = read_back(written);
        ASSERT_EQ(events.size(), 6u) << written;
        EXPECT_EQ(events[2], ":" + fitting);
    }
}

TEST_F(YamlFailure, ValuesHaveRoomFor1023Bytes)
{
    const std::string fitting(1023, 'x'), too_long(1024, 'x'), endless(100000, 'x');
    for (const bool quoted : {true, false}) {
        const auto write = quoted ? &yaml_set_val_char : &yaml_set_val_str;
        const std::string written = written_by([&] {
            const yaml_emitter_t before = emitter;
            EXPECT_EQ(write(e, v, "k", too_long.c_str()), -1);
            EXPECT_EQ(write(e, v, "k", endless.c_str()), -1);
            EXPECT_EQ(memcmp(&emitter, &before, sizeof(before)), 0) << "the key was emitted";
            EXPECT_EQ(write(e, v, "k", fitting.c_str()), 0);
        });
        const std::string quote = quoted ? "\"" : "";
        EXPECT_EQ(written, "k: " + quote + fitting + quote + "\n");
    }
}

TEST_F(YamlFailure, LoneKeysHaveRoomFor511Bytes)
{
    const std::string fitting(511, 'k'), too_long(512, 'k');
    const std::string written = written_by([&] {
        const yaml_emitter_t before = emitter;
        EXPECT_EQ(yaml_set_var_char(e, v, too_long.c_str()), -1);
        EXPECT_EQ(memcmp(&emitter, &before, sizeof(before)), 0) << "something was emitted";
        EXPECT_EQ(yaml_set_var_char(e, v, fitting.c_str()), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 1), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 0), 0);
    });
    EXPECT_EQ(read_back(written),
              (strings{"+DOC", "+MAP", ":" + fitting, "+SEQ []", "-SEQ", "-MAP", "-DOC"}));
}

TEST_F(YamlFailure, BareScalarsHaveNoLimit)
{
    const std::string key(70000, 'k'), value(200000, 'x');
    const std::string written = written_by([&] {
        EXPECT_EQ(yaml_scalar_event_var(e, v, key.c_str()), 0);
        EXPECT_EQ(yaml_scalar_event_val(e, v, value.c_str()), 0);
    });
    EXPECT_EQ(read_back(written),
              (strings{"+DOC", "+MAP", ":" + key, "\"" + value, "-MAP", "-DOC"}));
}

TEST_F(YamlFailure, TextThatIsNotUtf8IsRefused)
{
    for (const char *bad :
         {"\xff", "a\x80", "\xc3", "\xe2\x82", "\xc0\x80", "\xf8\x88\x80\x80\x80"}) {
        const std::string written = written_by([&] {
            EXPECT_EQ(yaml_scalar_event_var(e, v, bad), -1);
            EXPECT_EQ(yaml_scalar_event_val(e, v, bad), -1);
            EXPECT_EQ(yaml_set_var_char(e, v, bad), -1);
            for (const pair_writer &write : pair_writers)
                EXPECT_EQ(write(e, v, bad), -1);
            // The key stands by then; the caller may still give it a value.
            EXPECT_EQ(yaml_set_val_char(e, v, "k", bad), -1);
            EXPECT_EQ(yaml_scalar_event_val(e, v, "x"), 0);
            EXPECT_EQ(yaml_set_val_str(e, v, "l", bad), -1);
            EXPECT_EQ(yaml_scalar_event_val(e, v, "y"), 0);
        });
        EXPECT_EQ(written, "k: \"x\"\nl: \"y\"\n");
    }
}

// Closing in every state ---------------------------------------------------------------------------

TEST_F(YamlFailure, ClosingWhatWasNeverPreparedOrIsClosedDoesNothing)
{
    memset(&emitter, 0, sizeof(emitter)); // whole, with what lies between its members
    expect_all_refuse();
    expect_close_fails();
    EXPECT_EQ(written_by([] {}), "{}\n");
    expect_all_refuse();
    expect_close_fails();
    expect_close_fails();
    EXPECT_EQ(text(), "{}\n");
}

TEST_F(YamlFailure, ClosingAfterPreparingWithoutAFileDoesNothing)
{
    EXPECT_EQ(yaml_prepare_data(e, v, nullptr), -1);
    EXPECT_LINES("yaml_prepare_data: PTR_IS_NULL: config_file");
    expect_close_fails();
    EXPECT_EQ(text(), "");
}

TEST_F(YamlFailure, AnEmitterWithoutAnOutputIsReleased)
{
    yaml_emitter_initialize(e);
    expect_all_refuse();
    expect_close_fails();
    yaml_emitter_initialize(e);
    yaml_emitter_open(e);
    expect_all_refuse();
    expect_close_fails();
}

TEST_F(YamlFailure, AnEmitterWhoseStreamWasNotOpenedIsReleased)
{
    yaml_emitter_initialize(e);
    yaml_emitter_set_output_file(e, file);
    expect_close_fails();
    yaml_emitter_initialize(e);
    yaml_emitter_set_output_file(e, file);
    EXPECT_EQ(yaml_set_val_int(e, v, "k", 1), -1);
    expect_all_refuse();
    expect_close_fails();
    EXPECT_EQ(text(), "");
}

TEST_F(YamlFailure, AStreamThatWasNotOpenedByOpeningTheEmitterIsNotClosed)
{
    yaml_emitter_initialize(e);
    yaml_emitter_set_output_file(e, file);
    yaml_stream_start_event_initialize(v, YAML_UTF8_ENCODING);
    EXPECT_EQ(yaml_emitter_emit(e, v), 1);
    yaml_document_start_event_initialize(v, nullptr, nullptr, nullptr, 1);
    EXPECT_EQ(yaml_emitter_emit(e, v), 1);
    EXPECT_EQ(yaml_mapping_event(e, v, 1), 0);
    expect_close_fails();
    EXPECT_EQ(text(), "{}\n");
}

TEST_F(YamlFailure, AnEmitterWithAnOutputButNotInitializedIsRefused)
{
    yaml_emitter_set_output_file(e, file);
    expect_all_refuse();
    expect_close_fails();
    EXPECT_EQ(text(), "");
}

TEST_F(YamlFailure, AnEmitterThatTheCallerClosedIsReleased)
{
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(yaml_mapping_event(e, v, 0), 0);
    yaml_document_end_event_initialize(v, 1);
    EXPECT_EQ(yaml_emitter_emit(e, v), 1);
    EXPECT_EQ(yaml_emitter_close(e), 1);
    expect_close_fails();
    EXPECT_EQ(text(), "{}\n");
}

TEST_F(YamlFailure, ABlockThatIsStillOpenIsReported)
{
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "before", 1), 0);
    EXPECT_EQ(yaml_set_var_char(e, v, "open"), 0);
    EXPECT_EQ(yaml_mapping_event(e, v, 1), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "k", 2), 0);
    expect_close_fails();
    EXPECT_EQ(text().rfind("before: \"1\"\nopen:\n    k: \"2\"\n", 0), 0u) << text();
}

TEST_F(YamlFailure, AKeyWithoutAValueIsReported)
{
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "before", 1), 0);
    EXPECT_EQ(yaml_set_val_char(e, v, "k", "\xff"), -1);
    expect_close_fails();
    EXPECT_EQ(text().rfind("before: \"1\"\nk:", 0), 0u) << text();
}

TEST_F(YamlFailure, AnEventInTheWrongPlaceEndsTheEmitter)
{
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "before", 1), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "too", 2), 0);
    EXPECT_EQ(yaml_sequence_event(e, v, 0), -1);
    EXPECT_EQ(emitter.error, YAML_EMITTER_ERROR);
    EXPECT_NE(emitter.problem, nullptr);
    expect_all_refuse();
    expect_close_fails();
    EXPECT_EQ(text().rfind("before: \"1\"\ntoo: \"2\"\n", 0), 0u) << text();
}

// Steps of libyaml that fail -----------------------------------------------------------------------

TEST_F(YamlFailure, PreparingReportsEveryStepThatFails)
{
    for (const char *step : {"yaml_emitter_open", "yaml_document_start_event_initialize"}) {
        Faults faults;
        faults.fail(step, ENOMEM);
        EXPECT_EQ(prepare(), -1) << step;
        expect_close_fails();
    }
}

TEST_F(YamlFailure, ClosingReportsEveryStepThatFailsAndReleasesTheEmitter)
{
    for (const char *step :
         {"yaml_mapping_end_event_initialize", "yaml_document_end_event_initialize",
          "yaml_emitter_flush", "yaml_emitter_close"}) {
        ASSERT_EQ(prepare(), 0);
        Faults faults;
        faults.fail(step, ENOMEM);
        expect_close_fails();
        EXPECT_TRUE(faults.happened()) << step;
        EXPECT_EQ(faults.calls("yaml_emitter_flush"), 1u) << step;
        EXPECT_EQ(faults.calls("yaml_emitter_close"), 1u) << step;
    }
}

TEST_F(YamlFailure, AnEndThatCannotBeMadeMayBeTriedAgain)
{
    Faults faults;
    EXPECT_EQ(written_by([&] {
                  EXPECT_EQ(yaml_set_var_char(e, v, "k"), 0);
                  EXPECT_EQ(yaml_sequence_event(e, v, 1), 0);
                  faults.fail("yaml_sequence_end_event_initialize", ENOMEM);
                  EXPECT_EQ(yaml_sequence_event(e, v, 0), -1);
                  EXPECT_EQ(yaml_sequence_event(e, v, 0), 0);
              }),
              "k: []\n");
}

// Files that fail ----------------------------------------------------------------------------------

TEST_F(YamlFailure, AFullFileIsReportedWhenClosing)
{
    open_full_file();
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "k", 1), 0);
    errno = 0;
    expect_close_fails();
    EXPECT_EQ(errno, ENOSPC);
    expect_close_fails();
}

TEST_F(YamlFailure, AFileThatIsOnlyReadIsReportedWhenClosing)
{
    fclose(file);
    file = fopen(path.c_str(), "r");
    ASSERT_EQ(prepare(), 0);
    errno = 0;
    expect_close_fails();
    EXPECT_EQ(errno, EBADF);
}

TEST_F(YamlFailure, AFullFileEndsTheEmitterOnceItsBufferIsFull)
{
    open_full_file();
    ASSERT_EQ(prepare(), 0);
    const std::string value(1000, 'x');
    int written = 0;
    while (written < 100 && yaml_set_val_char(e, v, "k", value.c_str()) == 0)
        written++;
    EXPECT_EQ(written, 16); // of 16 kilobytes
    EXPECT_EQ(emitter.error, YAML_WRITER_ERROR);
    expect_all_refuse();
    expect_close_fails();
}

// A write may fail at any byte of the text, so also in the middle of an event that is half worked
// off. Going on regardless must not work it off twice.
TEST_F(YamlFailure, AWriteThatFailsAtAnyPlaceDoesNoHarm)
{
    open_full_file();
    bool failed_at_the_end_of_a_sequence = false;
    for (size_t length = 16384 - 64; length <= 16384; length++) {
        ASSERT_EQ(prepare(), 0);
        const std::string filler(length, 'f');
        int failures = 0;
        failures += yaml_scalar_event_var(e, v, "k") != 0;
        failures += yaml_scalar_event_val(e, v, filler.c_str()) != 0;
        failures += yaml_set_var_char(e, v, "s") != 0;
        failures += yaml_block_sequence_event(e, v, 1) != 0;
        failures += yaml_scalar_event_var(e, v, "a") != 0;
        failures += yaml_block_sequence_event(e, v, 0) != 0;
        failed_at_the_end_of_a_sequence |=
            failures == 1 && emitter.events.head->type == YAML_SEQUENCE_END_EVENT;
        for (int i = 0; i < 10; i++) {
            for (const step &s : steps)
                s(e, v);
            ASSERT_TRUE(stacks_are_sound(emitter)) << length;
        }
        expect_close_fails();
    }
    EXPECT_TRUE(failed_at_the_end_of_a_sequence);
}

// Allocations that fail ----------------------------------------------------------------------------

namespace {

// Writes a document that makes each of libyaml's stacks grow; how many calls failed.
int write_deep_document(yaml_emitter_t *e, yaml_event_t *v, FILE *file, bool stop)
{
    int failures = yaml_prepare_data(e, v, file) != 0;
    const auto run = [&](auto helper, auto... args) {
        if (failures == 0 || !stop)
            failures += helper(e, v, args...) != 0;
    };
    for (int depth = 0; depth < 20; depth++) {
        run(yaml_set_val_char, "key", "value");
        run(yaml_set_var_char, "block");
        run(yaml_mapping_event, 1);
    }
    run(yaml_set_var_char, "list");
    for (int depth = 0; depth < 20; depth++)
        run(yaml_block_sequence_event, 1);
    run(yaml_scalar_event_val, "\u00e9");
    for (int depth = 0; depth < 20; depth++)
        run(yaml_block_sequence_event, 0);
    for (int depth = 0; depth < 20; depth++)
        run(yaml_mapping_event, 0);
    return failures;
}

} // namespace

TEST_F(YamlFailure, AnyAllocationMayFail)
{
    ASSERT_EQ(write_deep_document(e, v, file, false), 0);
    ASSERT_EQ(close(), 0);
    const std::string whole = text();
    EXPECT_EQ(read_back(whole).back(), "-DOC") << whole;

    for (const bool stop : {true, false}) {
        Faults faults("libyaml-0.so");
        unsigned n = 1;
        for (;; n++) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            empty_file();
            faults.clear();
            faults.fail_allocation(n);
            errno = 0;
            const int failures = write_deep_document(e, v, file, stop);
            EXPECT_EQ(failures != 0, faults.happened());
            EXPECT_TRUE(stacks_are_sound(emitter));
            if (!faults.happened())
                break;
            EXPECT_EQ(errno, ENOMEM);
            const bool dead = emitter.error != YAML_NO_ERROR;
            const bool closed = close() == 0;
            EXPECT_TRUE(is_zeroed(emitter));
            // Only a text that was refused before it was emitted may leave a sound document.
            EXPECT_FALSE(dead && closed);
            if (closed) {
                EXPECT_EQ(read_back(text()).back(), "-DOC") << text();
            }
        }
        EXPECT_EQ(close(), 0);
        EXPECT_EQ(text(), whole);
        EXPECT_GT(n, 6u + 4u + 60u); // buffers and stacks, tag directives, the texts
        EXPECT_GT(faults.calls("malloc"), 6u);
        EXPECT_GE(faults.calls("realloc"), 2u);
        EXPECT_EQ(faults.calls("strdup"), 4u);
    }
    EXPECT_EQ(written_by([&] { EXPECT_EQ(yaml_set_val_int(e, v, "k", 1), 0); }), "k: \"1\"\n");
}

TEST_F(YamlFailure, ATextWithoutMemoryLeavesTheEmitterUsable)
{
    EXPECT_EQ(written_by([&] {
                  Faults faults("libyaml-0.so");
                  faults.fail("malloc", ENOMEM);
                  EXPECT_EQ(yaml_set_val_int(e, v, "k", 1), -1);
                  EXPECT_EQ(yaml_set_val_int(e, v, "k", 2), 0);
              }),
              "k: \"2\"\n");
}

TEST_F(YamlFailure, PreparingWithoutAnyMemoryCanBeClosedAndRepeated)
{
    {
        Faults faults("libyaml-0.so");
        faults.fail_always("malloc", ENOMEM);
        EXPECT_EQ(prepare(), -1);
        expect_all_refuse();
        expect_close_fails();
    }
    EXPECT_EQ(written_by([] {}), "{}\n");
}

// Calls in any order -------------------------------------------------------------------------------

namespace {

// A file whose writes fail after a number of bytes.
struct failing_file {
    std::string written;
    size_t room;

    static ssize_t write(void *cookie, const char *data, size_t size)
    {
        auto *self = static_cast<failing_file *>(cookie);
        const size_t taken = std::min(size, self->room);
        self->written.append(data, taken);
        self->room -= taken;
        if (taken < size)
            errno = ENOSPC;
        return static_cast<ssize_t>(taken);
    }
    FILE *open()
    {
        FILE *opened = fopencookie(this, "w", {nullptr, &write, nullptr, nullptr});
        setvbuf(opened, nullptr, _IONBF, 0);
        return opened;
    }
};

} // namespace

TEST_F(YamlFailure, CallsInAnyOrderDoNoHarm)
{
    constexpr unsigned seed = 20240229;
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) { return random() % n; };
    int complete = 0, refused = 0;
    for (int round = 0; round < 4000; round++) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
        failing_file target = {.written = "", .room = below(4) == 0 ? below(60) : SIZE_MAX};
        FILE *out = target.open();
        // With a bias towards what is allowed, so that some documents are complete.
        const bool careful = below(2) == 0;
        ASSERT_EQ(yaml_prepare_data(e, v, out), 0);
        bool all_done = true;
        for (unsigned calls = below(12); calls > 0; calls--) {
            const bool dead = emitter.error != YAML_NO_ERROR;
            const step s = careful ? steps[3 + below(5)] : steps[below(std::size(steps))];
            const bool done = s(e, v) == 0;
            EXPECT_FALSE(dead && done);
            EXPECT_TRUE(stacks_are_sound(emitter));
            all_done &= done;
        }
        const bool dead = emitter.error != YAML_NO_ERROR;
        const bool closed = yaml_close_data(e, v, out) == 0;
        fclose(out);
        EXPECT_TRUE(is_zeroed(emitter));
        EXPECT_FALSE(dead && closed);
        if (closed) {
            EXPECT_TRUE(all_done);
            EXPECT_EQ(read_back(target.written).back(), "-DOC") << target.written;
        }
        (closed ? complete : refused)++;
    }
    EXPECT_GT(complete, 500);
    EXPECT_GT(refused, 500);
}
