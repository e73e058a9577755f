// watcher_states dot|table: the watcher's rules, read from the table that the library walks, as a
// graph for the documentation's picture or as the table of its page.
#include "watch/inotify_states.hpp"

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>

using namespace vyt;

namespace {

std::string events_text(uint8_t events)
{
    constexpr struct {
        uint8_t bit;
        const char *name;
    } names[] = {{EV_LOST, "LOST"}, {EV_APPEARED, "APPEARED"}, {EV_MODIFIED, "MODIFIED"}};
    std::string text;
    for (const auto &[bit, name] : names)
        if ((events & bit) != 0)
            text += (text.empty() ? "" : " or ") + std::string(name);
    return text.empty() ? "anything" : text;
}

std::string origins_text(const turn_rule &rule)
{
    std::string text;
    for (const watch_state from : {WATCH_FILE, WATCH_DIRECTORY, LOST_DIRECTORY})
        if ((rule.from & (1u << from)) != 0)
            text += (text.empty() ? "" : ", ") + std::string(watch_state_name(from));
    return text;
}

// How an action may end, in the words of the picture.
struct way {
    const char *how;
    turn_outcome outcome;
};

struct ways {
    way list[3];
    int count;
};

ways ways_of(const turn_rule &rule)
{
    switch (rule.action) {
    case turn_action::arm:
        return {{{"armed", rule.done}, {"arming failed", rule.failed}}, 2};
    case turn_action::arm_and_look:
        return {{{"armed, the file is there", rule.done},
                 {"armed, no file", rule.absent},
                 {"arming failed", rule.failed}},
                3};
    default:
        return {{{"", rule.done}}, 1};
    }
}

const char *notify_text(notify_kind notify)
{
    switch (notify) {
    case NOTIFY_CHANGED:
        return "report: changed";
    case NOTIFY_REMOVED:
        return "report: gone";
    default:
        return "";
    }
}

watch_state next_state(const turn_rule &rule, const turn_outcome &outcome)
{
    return outcome.next == turn_next::end ? rule.state : state_after(outcome.next);
}

// What moves a file along one arrow of the picture, a paragraph for each way.
std::string arrow_label(const turn_rule &rule, const way &way)
{
    std::string label = events_text(rule.on);
    if (rule.state != WATCH_DIRECTORY) // whose rules ask for no origin
        label += "\\nfrom " + origins_text(rule);
    for (const char *text : {way.how, notify_text(way.outcome.notify)})
        if (*text != '\0')
            label += std::string("\\n") + text;
    return label;
}

using arrows = std::map<std::pair<watch_state, watch_state>, std::string>;

arrows all_arrows()
{
    arrows found;
    for (const turn_rule &rule : turn_rules) {
        const ways all = ways_of(rule);
        for (int i = 0; i < all.count; i++) {
            std::string &label = found[{rule.state, next_state(rule, all.list[i].outcome)}];
            label += (label.empty() ? "" : "\\n\\n") + arrow_label(rule, all.list[i]);
        }
    }
    return found;
}

void print_dot()
{
    printf("// Made from the table of the source: ./dev docs\n"
           "digraph watcher {\n"
           "  graph [fontname=\"Helvetica\", nodesep=1.0, ranksep=0.9];\n"
           "  node [fontname=\"Helvetica\", shape=box, style=\"rounded,filled\","
           " fillcolor=\"#e8f0fe\", margin=0.25];\n"
           "  edge [fontname=\"Helvetica\", fontsize=11];\n"
           "  included [shape=point, label=\"\"];\n"
           "  included -> WATCH_FILE [label=\"included, the file is there\\nAPPEARED\"];\n"
           "  included -> WATCH_DIRECTORY [label=\"included, no file\\nLOST\"];\n");
    for (const auto &[ends, label] : all_arrows())
        printf("  %s -> %s [label=\"%s\"%s];\n", watch_state_name(ends.first),
               watch_state_name(ends.second), label.c_str(),
               ends.first == ends.second ? ", style=dashed" : "");
    printf("}\n");
}

void print_row(const turn_rule &rule, const way &way)
{
    const auto cleared = static_cast<uint8_t>(rule.clear | way.outcome.clear);
    printf("| %s | %s | %s | %s | %s | %s | %s | %s |\n", watch_state_name(rule.state),
           origins_text(rule).c_str(), events_text(rule.on).c_str(), way.how,
           cleared == 0 ? "" : events_text(cleared).c_str(),
           way.outcome.set == 0 ? "" : events_text(way.outcome.set).c_str(),
           notify_text(way.outcome.notify),
           way.outcome.next == turn_next::end ? "the turn ends"
                                              : watch_state_name(state_after(way.outcome.next)));
}

void print_table()
{
    printf("| state | came from | pending | how it went | clears | sets | reports | next |\n"
           "|---|---|---|---|---|---|---|---|\n");
    for (const turn_rule &rule : turn_rules) {
        const ways all = ways_of(rule);
        for (int i = 0; i < all.count; i++)
            print_row(rule, all.list[i]);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "dot") == 0)
        print_dot();
    else if (argc == 2 && strcmp(argv[1], "table") == 0)
        print_table();
    else
        return 2;
    return 0;
}
