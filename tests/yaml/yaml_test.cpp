#include "yaml/yaml_fixture.hpp"

#include <climits>
#include <random>
#include <sys/mman.h>

using namespace vyt::test;

namespace {

// Texts that a careless writer would not read back.
const strings awkward_texts = {
    "",
    " ",
    "  leading",
    "trailing  ",
    "\n",
    "\n\n",
    "two\nlines",
    "ends with a break\n",
    "\nstarts with one",
    "a\n\n  b \n c",
    "tab\there",
    "\t",
    "cr\rhere",
    "crlf\r\nhere",
    "\"double\"",
    "'single'",
    "both ' and \"",
    "back\\slash",
    "a: b",
    "a:b",
    "a :b",
    "a #b",
    "#c",
    "- item",
    "-",
    "---",
    "...",
    "? key",
    ":",
    "[list]",
    "{map}",
    "a, b",
    "*alias",
    "&anchor",
    "!tag",
    "%directive",
    "@at",
    "`tick",
    "|",
    ">",
    "null",
    "~",
    "yes",
    "no",
    "22",
    "0x1F",
    "1e3",
    "2001-01-01",
    "=",
    "<<",
    "\x01\x02\x1b\x7f",
    "caf\u00e9",
    "\u6f22\u5b57",
    "\U0001F600",
    "\u0085",
    "\u00a0",
    "\u2028\u2029",
    "\ufeffbom",
    "\ue000\ufffd",
    "mixed \u00e9 \"q\" \\ \n \U0001F600 end",
};

} // namespace

TEST_F(Yaml, WritesPairsAtTheRoot)
{
    EXPECT_EQ(prepare(), 0);
    EXPECT_EQ(yaml_set_val_int(e, v, "port", 22), 0);
    EXPECT_EQ(yaml_set_val_bool_str(e, v, "enable", true), 0);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(text(), "port: \"22\"\nenable: yes\n");
    EXPECT_TRUE(is_zeroed(emitter));
}

TEST_F(Yaml, AnotherReaderSeesTheSameTypes)
{
    NEEDS_PYTHON();
    written_by([&] {
        EXPECT_EQ(yaml_set_val_int(e, v, "port", 22), 0);
        EXPECT_EQ(yaml_set_val_bool_str(e, v, "enable", true), 0);
        EXPECT_EQ(yaml_set_val_str(e, v, "plain", "22"), 0);
        EXPECT_EQ(yaml_set_val_bool(e, v, "flag", false), 0);
        EXPECT_EQ(yaml_set_val_char(e, v, "word", "yes"), 0);
    });
    EXPECT_EQ(
        python("print(json.dumps(yaml.load(open(sys.argv[1]), Loader=yaml.SafeLoader)))", path),
        "{\"port\": \"22\", \"enable\": true, \"plain\": 22, \"flag\": \"0\", "
        "\"word\": \"yes\"}\n");
}

TEST_F(Yaml, EachPairHelperHasItsForm)
{
    EXPECT_EQ(written_by([&] {
                  EXPECT_EQ(yaml_set_val_char(e, v, "quoted", "text"), 0);
                  EXPECT_EQ(yaml_set_val_str(e, v, "plain", "text"), 0);
                  EXPECT_EQ(yaml_set_val_bool(e, v, "one", true), 0);
                  EXPECT_EQ(yaml_set_val_bool(e, v, "zero", false), 0);
                  EXPECT_EQ(yaml_set_val_bool_str(e, v, "on", true), 0);
                  EXPECT_EQ(yaml_set_val_bool_str(e, v, "off", false), 0);
              }),
              "quoted: \"text\"\nplain: text\none: \"1\"\nzero: \"0\"\non: yes\noff: no\n");
}

TEST_F(Yaml, NumbersAreWrittenWhole)
{
    EXPECT_EQ(written_by([&] {
                  for (const int number : {0, -1, INT_MAX, INT_MIN})
                      EXPECT_EQ(yaml_set_val_int(e, v, "n", number), 0);
              }),
              "n: \"0\"\nn: \"-1\"\nn: \"2147483647\"\nn: \"-2147483648\"\n");
}

TEST_F(Yaml, AnEmptyDocumentIsAnEmptyMapping)
{
    EXPECT_EQ(written_by([] {}), "{}\n");
}

TEST_F(Yaml, NestedBlocksAreIndentedByFour)
{
    const std::string written = written_by([&] {
        EXPECT_EQ(yaml_set_var_char(e, v, "outer"), 0);
        EXPECT_EQ(yaml_mapping_event(e, v, 1), 0);
        EXPECT_EQ(yaml_set_var_char(e, v, "inner"), 0);
        EXPECT_EQ(yaml_mapping_event(e, v, -7), 0); // anything but 0 starts
        EXPECT_EQ(yaml_set_val_char(e, v, "k", "x"), 0);
        EXPECT_EQ(yaml_mapping_event(e, v, 0), 0);
        EXPECT_EQ(yaml_mapping_event(e, v, 0), 0);
        EXPECT_EQ(yaml_set_val_str(e, v, "last", "y"), 0);
    });
    EXPECT_EQ(written, "outer:\n    inner:\n        k: \"x\"\nlast: y\n");
}

TEST_F(Yaml, SequencesHoldScalarsMappingsAndSequences)
{
    const std::string written = written_by([&] {
        EXPECT_EQ(yaml_set_var_char(e, v, "list"), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 2), 0);
        EXPECT_EQ(yaml_scalar_event_val(e, v, "quoted"), 0);
        EXPECT_EQ(yaml_scalar_event_var(e, v, "plain"), 0);
        EXPECT_EQ(yaml_mapping_event(e, v, 1), 0);
        EXPECT_EQ(yaml_set_val_int(e, v, "id", 1), 0);
        EXPECT_EQ(yaml_set_val_int(e, v, "mtu", 2), 0);
        EXPECT_EQ(yaml_mapping_event(e, v, 0), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 1), 0);
        EXPECT_EQ(yaml_scalar_event_var(e, v, "deep"), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 0), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 1), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 0), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 0), 0);
    });
    const strings events = {"+DOC", "+MAP",    ":list", "+SEQ", "\"quoted", ":plain", "+MAP",
                            ":id",  "\"1",     ":mtu",  "\"2",  "-MAP",     "+SEQ",   ":deep",
                            "-SEQ", "+SEQ []", "-SEQ",  "-SEQ", "-MAP",     "-DOC"};
    EXPECT_EQ(read_back(written), events) << written;
    if (!python_is_missing()) {
        EXPECT_EQ(read_by_python(path), events) << written;
    }
}

TEST_F(Yaml, TheBlockSequenceHelperWritesFlowSequences)
{
    const std::string written = written_by([&] {
        EXPECT_EQ(yaml_set_var_char(e, v, "ports"), 0);
        EXPECT_EQ(yaml_block_sequence_event(e, v, 1), 0);
        EXPECT_EQ(yaml_scalar_event_val(e, v, "1"), 0);
        EXPECT_EQ(yaml_scalar_event_var(e, v, "two"), 0);
        EXPECT_EQ(yaml_block_sequence_event(e, v, 0), 0);
        EXPECT_EQ(yaml_set_var_char(e, v, "none"), 0);
        EXPECT_EQ(yaml_block_sequence_event(e, v, 3), 0);
        EXPECT_EQ(yaml_sequence_event(e, v, 0), 0); // either helper ends either sequence
    });
    EXPECT_EQ(written, "ports: [\"1\", two]\nnone: []\n");
}

TEST_F(Yaml, EventsAreBuiltAsPromised)
{
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(event.type, YAML_MAPPING_START_EVENT);
    EXPECT_EQ(event.data.mapping_start.implicit, 1);
    EXPECT_EQ(event.data.mapping_start.style, YAML_ANY_MAPPING_STYLE);
    EXPECT_EQ(emitter.best_indent, 4);
    EXPECT_EQ(emitter.best_width, 65535);
    const auto is_scalar = [&](yaml_scalar_style_t style) {
        const auto &scalar = event.data.scalar;
        return event.type == YAML_SCALAR_EVENT && scalar.style == style &&
               scalar.anchor == nullptr && scalar.tag == nullptr && scalar.plain_implicit == 1 &&
               scalar.quoted_implicit == 1;
    };
    EXPECT_EQ(yaml_set_var_char(e, v, "k"), 0);
    EXPECT_TRUE(is_scalar(YAML_PLAIN_SCALAR_STYLE));
    EXPECT_EQ(yaml_scalar_event_val(e, v, "x"), 0);
    EXPECT_TRUE(is_scalar(YAML_DOUBLE_QUOTED_SCALAR_STYLE));
    EXPECT_EQ(yaml_set_var_char(e, v, "s"), 0);
    EXPECT_EQ(yaml_block_sequence_event(e, v, 1), 0);
    EXPECT_EQ(event.type, YAML_SEQUENCE_START_EVENT);
    EXPECT_EQ(event.data.sequence_start.style, 2);
    EXPECT_EQ(event.data.sequence_start.implicit, 1);
    EXPECT_EQ(yaml_sequence_event(e, v, 1), 0);
    EXPECT_EQ(event.data.sequence_start.style, YAML_ANY_SEQUENCE_STYLE);
    EXPECT_EQ(event.data.sequence_start.implicit, 1);
    EXPECT_EQ(yaml_sequence_event(e, v, 0), 0);
    EXPECT_EQ(yaml_block_sequence_event(e, v, 0), 0);
    EXPECT_EQ(event.type, YAML_SEQUENCE_END_EVENT);
    EXPECT_EQ(close(), 0);
}

TEST_F(Yaml, AwkwardTextsReadBackUnchanged)
{
    const bool has_python = !python_is_missing();
    using writer = int (*)(yaml_emitter_t *, yaml_event_t *, const char *, const char *);
    for (const writer write : {&yaml_set_val_char, &yaml_set_val_str}) {
        strings expected = {"+DOC", "+MAP"};
        const std::string written = written_by([&] {
            for (const std::string &awkward : awkward_texts) {
                EXPECT_EQ(write(e, v, awkward.c_str(), awkward.c_str()), 0);
                expected.insert(expected.end(), 2, on_one_line(awkward));
            }
        });
        expected.insert(expected.end(), {"-MAP", "-DOC"});
        const auto without_styles = [](strings events) {
            for (size_t i = 2; i + 2 < events.size(); i++)
                events[i].erase(0, 1);
            return events;
        };
        EXPECT_EQ(without_styles(read_back(written)), expected) << written;
        if (has_python) {
            EXPECT_EQ(without_styles(read_by_python(path)), expected) << written;
        }
    }
}

TEST_F(Yaml, LinesAreFoldedOnlyAtAGreatWidth)
{
    const auto lines_of = [&](size_t length) {
        const std::string word(length, 'a');
        const std::string written = written_by([&] {
            EXPECT_EQ(yaml_set_var_char(e, v, "k"), 0);
            EXPECT_EQ(yaml_scalar_event_val(e, v, (word + " b").c_str()), 0);
        });
        EXPECT_EQ(read_back(written)[3], "\"" + word + " b");
        return std::count(written.begin(), written.end(), '\n');
    };
    EXPECT_EQ(lines_of(65000), 1);
    EXPECT_EQ(lines_of(66000), 2);
}

TEST_F(Yaml, ATextOfTwoGibibytesIsRefused)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer would need eight gibibytes for it";
#endif
    // One file, mapped again and again behind itself, and a page of zeros at the end.
    constexpr size_t piece = size_t{1} << 21, length = size_t{1} << 31;
    const int pages = memfd_create("text", 0);
    ASSERT_EQ(ftruncate(pages, piece), 0);
    void *one = mmap(nullptr, piece, PROT_WRITE, MAP_SHARED, pages, 0);
    ASSERT_NE(one, MAP_FAILED);
    memset(one, 'x', piece);
    munmap(one, piece);
    auto *whole = static_cast<char *>(mmap(nullptr, length + piece, PROT_READ,
                                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(whole, MAP_FAILED);
    for (size_t at = 0; at < length; at += piece)
        ASSERT_EQ(mmap(whole + at, piece, PROT_READ, MAP_SHARED | MAP_FIXED, pages, 0), whole + at);
    ::close(pages);
    EXPECT_EQ(written_by([&] {
                  EXPECT_EQ(yaml_scalar_event_var(e, v, whole), -1);
                  EXPECT_EQ(yaml_set_val_int(e, v, "k", 1), 0);
              }),
              "k: \"1\"\n");
    munmap(whole, length + piece);
}

TEST_F(Yaml, WritesFromTheFilesPositionAndLeavesItOpen)
{
    const auto before = open_descriptors();
    fputs("# written by a daemon\n", file);
    ASSERT_EQ(prepare(), 0);
    EXPECT_EQ(yaml_set_val_str(e, v, "k", "x"), 0);
    EXPECT_EQ(close(), 0);
    fputs("# end\n", file);
    EXPECT_EQ(text(), "# written by a daemon\nk: x\n# end\n");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Yaml, TheCallersTextsAreCopied)
{
    char key[] = "key", val[] = "val", item[] = "item";
    const std::string written = written_by([&] {
        EXPECT_EQ(yaml_set_val_char(e, v, key, val), 0);
        EXPECT_EQ(yaml_scalar_event_var(e, v, item), 0);
        EXPECT_EQ(yaml_scalar_event_val(e, v, item), 0);
        key[0] = val[0] = item[0] = '!';
    });
    EXPECT_EQ(written, "key: \"val\"\nitem: \"item\"\n");
}

TEST_F(Yaml, ARecordServesAgainWhateverItHeld)
{
    memset(&emitter, 0xa5, sizeof(emitter));
    memset(&event, 0xa5, sizeof(event));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(written_by([&] { EXPECT_EQ(yaml_set_val_int(e, v, "i", i), 0); }),
                  "i: \"" + std::to_string(i) + "\"\n");
}

TEST_F(Yaml, TheHelpersServeAnEmitterThatTheCallerSetUp)
{
    unsigned char out[64];
    size_t size = 0;
    yaml_emitter_initialize(e);
    yaml_emitter_set_output_string(e, out, sizeof(out), &size);
    yaml_emitter_open(e);
    yaml_document_start_event_initialize(v, nullptr, nullptr, nullptr, 0);
    yaml_emitter_emit(e, v);
    EXPECT_EQ(yaml_mapping_event(e, v, 1), 0);
    EXPECT_EQ(yaml_set_val_bool(e, v, "k", true), 0);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(std::string(out, out + size), "---\nk: \"1\"\n");
    EXPECT_EQ(text(), "");
}

// A literal text with trailing breaks is ended by the stream's end only.
TEST_F(Yaml, ClosingEndsTheStream)
{
    EXPECT_EQ(written_by([&] {
                  EXPECT_EQ(yaml_set_var_char(e, v, "k"), 0);
                  yaml_scalar_event_initialize(v, nullptr, nullptr,
                                               reinterpret_cast<const yaml_char_t *>("x\n\n"), -1,
                                               1, 1, YAML_LITERAL_SCALAR_STYLE);
                  EXPECT_EQ(yaml_emitter_emit(e, v), 1);
              }),
              "k: |+\n    x\n\n...\n");
}

// Random documents ---------------------------------------------------------------------------------

namespace {

// Writes random documents and notes which events they are; a text written plain is "?text", as
// libyaml may have to quote it.
class composer {
  public:
    composer(unsigned seed, yaml_emitter_t *emitter, yaml_event_t *event)
        : random(seed), e(emitter), v(event)
    {}

    // The pairs of a mapping that is open.
    void pairs(int depth, bool in_flow)
    {
        for (unsigned count = below(5); count > 0; count--) {
            const std::string key = text(63);
            if (below(3) == 0) {
                expect("?", key, yaml_set_var_char(e, v, key.c_str()));
                node(depth, in_flow);
            } else {
                pair(key);
            }
        }
    }

    strings expected;
    int failures = 0;

  private:
    unsigned below(unsigned n) { return random() % n; }
    void expect(const char *style, const std::string &text, int result)
    {
        expected.push_back(style + on_one_line(text));
        failures += result != 0;
    }

    // At most `size` bytes of awkward texts and words.
    std::string text(size_t size)
    {
        static const strings words = {"a",  "eth0", " ",  "\n", "10.0.0.1",
                                      "\"", "'",    ", ", ": ", "\u00e9"};
        std::string made;
        for (unsigned count = below(6); count > 0; count--) {
            const strings &from = below(3) == 0 ? awkward_texts : words;
            const std::string &next = from[below(from.size())];
            if (made.size() + next.size() <= size)
                made += next;
        }
        return made;
    }

    void pair(const std::string &key)
    {
        expected.push_back("?" + on_one_line(key));
        const std::string value = text(1023);
        const int number = static_cast<int>(random());
        const bool flag = below(2) == 0;
        switch (below(5)) {
        case 0:
            return expect("\"", value, yaml_set_val_char(e, v, key.c_str(), value.c_str()));
        case 1:
            return expect("?", value, yaml_set_val_str(e, v, key.c_str(), value.c_str()));
        case 2:
            return expect("\"", std::to_string(number),
                          yaml_set_val_int(e, v, key.c_str(), number));
        case 3:
            return expect("\"", flag ? "1" : "0", yaml_set_val_bool(e, v, key.c_str(), flag));
        default:
            return expect(":", flag ? "yes" : "no", yaml_set_val_bool_str(e, v, key.c_str(), flag));
        }
    }

    void node(int depth, bool in_flow)
    {
        const unsigned kind = depth == 0 ? below(2) : below(5);
        if (kind == 0 || kind == 1) {
            const std::string value = text(3000);
            const auto write = kind == 0 ? &yaml_scalar_event_val : &yaml_scalar_event_var;
            return expect(kind == 0 ? "\"" : "?", value, write(e, v, value.c_str()));
        }
        const size_t start = expected.size();
        const auto write = kind == 2   ? &yaml_mapping_event
                           : kind == 3 ? &yaml_sequence_event
                                       : &yaml_block_sequence_event;
        expect(kind == 2 ? "+MAP" : "+SEQ", "", write(e, v, 1));
        if (kind == 2) {
            pairs(depth - 1, in_flow);
        } else {
            for (unsigned count = below(4); count > 0; count--)
                node(depth - 1, in_flow || kind == 4);
        }
        // What is empty has no other form than the flow style.
        if (in_flow || kind == 4 || expected.size() == start + 1)
            expected[start] += kind == 2 ? " {}" : " []";
        expect(kind == 2 ? "-MAP" : "-SEQ", "", write(e, v, 0));
    }

    std::mt19937 random;
    yaml_emitter_t *e;
    yaml_event_t *v;
};

// The events as expected, with "?" for the style of every text where that is expected.
strings with_open_styles(strings events, const strings &expected)
{
    for (size_t i = 0; i < events.size() && i < expected.size(); i++) {
        const std::string styles = ":'\"";
        if (expected[i][0] == '?' && styles.find(events[i][0]) != std::string::npos)
            events[i][0] = '?';
    }
    return events;
}

} // namespace

TEST_F(Yaml, RandomDocumentsReadBackUnchanged)
{
    std::string all;
    strings all_expected;
    for (unsigned seed = 1; seed <= 400; seed++) {
        composer made(seed, e, v);
        const std::string written = written_by([&] { made.pairs(4, false); });
        EXPECT_EQ(made.failures, 0) << "seed " << seed;
        strings expected = made.expected;
        expected.insert(expected.begin(), {"+DOC", made.expected.empty() ? "+MAP {}" : "+MAP"});
        expected.insert(expected.end(), {"-MAP", "-DOC"});
        ASSERT_EQ(with_open_styles(read_back(written), expected), expected)
            << "seed " << seed << "\n"
            << written;
        all += "---\n" + written;
        expected.front() = "+DOC ---";
        all_expected.insert(all_expected.end(), expected.begin(), expected.end());
    }
    EXPECT_GT(all_expected.size(), 4000u);
    NEEDS_PYTHON();
    write_file(path, all);
    EXPECT_EQ(with_open_styles(read_by_python(path), all_expected), all_expected);
}
