// The WireGuard module's control file. The input is the file.
#include "syslog_wireguard.h"

#include "fuzz/support/fuzz.hpp"
#include "fuzz/support/scan.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::fuzz;

namespace {

const std::string path = "/proc/wireguard";

// "0x%x"
std::optional<unsigned> plain_bits(const std::string &contents)
{
    Scan scan(contents);
    if (!scan.skip('0') || !scan.skip('x'))
        return std::nullopt;
    return scan.hex_number();
}

} // namespace

void vyt::fuzz::prepare()
{
    static vyt::test::World world;
    world.make_proc_writable();
}

void vyt::fuzz::run(Input input)
{
    const std::string contents = input.rest();
    vyt::test::write_file(path, contents);

    const auto bits = plain_bits(contents);
    syslog_wireguard_flags_t flags = {.dbg = 7, .err = 9};
    EXPECT_EQ(syslog_wireguard_read_flags_from_proc_file(&flags), bits.has_value() ? 0 : -1);
    EXPECT_EQ(flags.dbg, bits.has_value() ? *bits & 1 : 7);
    EXPECT_EQ(flags.err, bits.has_value() ? *bits >> 16 & 1 : 9);

    // What is written is read back as on or off.
    const syslog_wireguard_flags_t before = flags;
    EXPECT_EQ(syslog_wireguard_write_flags_to_proc_file(before), 0);
    EXPECT_EQ(syslog_wireguard_read_flags_from_proc_file(&flags), 0);
    EXPECT_EQ(flags.dbg, before.dbg != 0);
    EXPECT_EQ(flags.err, before.err != 0);
}
