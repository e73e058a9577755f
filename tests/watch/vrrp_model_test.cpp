// The tracker against a plain oracle: random status files, random calls, everything that a daemon
// can see compared after every step.
#include <random>

#include "watch/vrrp_pair.hpp"

using namespace vyt::test;

namespace {

// Random steps ------------------------------------------------------------------------------------

const std::vector<std::string> &netns_pool()
{
    static const std::vector<std::string> pool = {
        "",
        "1",
        "red",
        "blue",
        "re",
        std::string(31, 'n'),
        std::string(32, 'n'),
        std::string(31, 'n') + "different",
        std::string(54, 'n'),
        std::string(55, 'n'),
        "11",
    };
    return pool;
}

const std::vector<int> vrid_pool = {1, 2, 3, 4, 5, 100, 254, 255};

class Steps {
  public:
    explicit Steps(unsigned seed) : random(seed), pair(faults) {}

    void run(int steps)
    {
        for (int step = 0; step < steps && !::testing::Test::HasFailure(); step++) {
            SCOPED_TRACE("step " + std::to_string(step));
            take_one();
            pair.compare(netns_pool(), vrid_pool,
                         [this](int count) { return below(count + 3) - 1; });
        }
    }

  private:
    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); }
    bool one_in(int chances) { return below(chances) == 0; }
    template <class Pool>
    const auto &any_of(const Pool &pool)
    {
        return pool[size_t(below(int(pool.size())))];
    }
    int any_group() { return one_in(4) ? 1 + below(32) : 1 + below(4); }

    void take_one()
    {
        switch (below(10)) {
        case 0:
            pair.enable_group(any_group());
            break;
        case 1:
            pair.disable_group(any_group());
            break;
        case 2:
            pair.enable_instance(any_of(netns_pool()), any_of(vrid_pool));
            break;
        case 3:
            pair.disable_instance(any_of(netns_pool()), any_of(vrid_pool));
            break;
        case 4:
        case 5:
            change_file();
            break;
        default:
            pair.update();
            break;
        }
    }

    file_record any_record()
    {
        const int strange[] = {0, 256, -1, -255, INT32_MIN, INT32_MAX, 1000};
        file_record record = {any_of(vrid_pool), below(4), one_in(5) ? 0 : any_group(),
                              any_of(netns_pool())};
        if (one_in(12))
            record.vrid = strange[below(7)];
        if (one_in(12))
            record.state = 4 + below(3) - 2 * 4 * below(2);
        if (one_in(12))
            record.group = one_in(2) ? 33 : strange[1 + below(6)];
        return record;
    }

    status_contents any_contents()
    {
        status_contents contents;
        const int count = one_in(10) ? 0 : one_in(5) ? below(300) : below(12);
        for (int i = 0; i < count; i++)
            contents.records.push_back(any_record());
        if (one_in(12))
            contents.stray_bytes = size_t(1 + below(575));
        return contents;
    }

    static std::string bytes_of(const status_contents &contents)
    {
        std::string bytes;
        for (const auto &[vrid, state, group, netns] : contents.records)
            bytes += record(vrid, state, group, netns);
        return bytes + std::string(contents.stray_bytes, 'x');
    }

    void change_file()
    {
        if (pair.has_file() && one_in(6)) {
            pair.remove_file();
            return;
        }
        const status_contents contents = any_contents();
        pair.replace_file(bytes_of(contents), contents,
                          one_in(2) ? rename_over : truncate_and_write);
    }

    std::mt19937 random;
    Faults faults;
    TrackerPair pair;
};

} // namespace

class VrrpModel : public TrackerTest, public ::testing::WithParamInterface<unsigned> {};

TEST_P(VrrpModel, BehavesAsThePlainOracle)
{
    SCOPED_TRACE("seed " + std::to_string(GetParam()));
    start();
    Steps(GetParam()).run(500);
}

INSTANTIATE_TEST_SUITE_P(Seeds, VrrpModel,
                         ::testing::Values(1u, 2u, 3u, 20u, 77u, 1234u, 4711u, 99991u));
