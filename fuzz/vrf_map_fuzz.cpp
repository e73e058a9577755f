// The VRF map. The input is the name that is looked up, a newline, then the map.
#include "lh_netns.h"

#include "fuzz/support/fuzz.hpp"
#include "fuzz/support/scan.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::fuzz;

namespace {

const std::string map_path = "/var/run/vrfs.map";
constexpr size_t line_size = 256;

bool is_same(const std::string &name, const std::string &other)
{
    return (name.empty() ? "1" : name) == (other.empty() ? "1" : other);
}

struct Answer {
    int index;
    std::vector<std::string> lines;
};

Answer plain_lookup(const std::string &name, const std::string &map)
{
    Answer answer = {0, {}};
    if (name.empty())
        return answer;
    const std::string start = "lh_netns_map_get_idx: no ";
    for (const std::string &piece : pieces_of(map, line_size)) {
        const std::string line = c_text(piece);
        const size_t colon = line.find(':');
        if (colon == std::string::npos) {
            answer.lines.push_back(start + "delimeter in line '" + line + "', skipping");
        } else if (is_same(line.substr(0, colon), name)) {
            answer.index = Scan(line.substr(colon + 1)).number().value_or(0);
            return answer;
        }
    }
    answer.lines.push_back(start + "namespace '" + name + "' found'");
    answer.index = -1;
    return answer;
}

} // namespace

void vyt::fuzz::prepare()
{
    static const vyt::test::World world;
}

void vyt::fuzz::run(Input input)
{
    const std::string name = c_text(input.line());
    const std::string map = input.rest();
    vyt::test::write_file(map_path, map);

    const Answer expected = plain_lookup(name, map);
    EXPECT_EQ(lh_netns_map_get_idx(Exact::text(name).data()), expected.index);
    EXPECT_EQ(vyt::test::take_lines(), expected.lines);
}
