// A pid file. The input is the file.
#include "lh_process.h"

#include <unistd.h>

#include "fuzz/support/fuzz.hpp"
#include "fuzz/support/scan.hpp"
#include "support/process.hpp"
#include "support/world.hpp"

using namespace vyt::fuzz;

namespace {

const std::string path = "/run/daemon.pid";

} // namespace

void vyt::fuzz::prepare()
{
    static const vyt::test::World world;
}

void vyt::fuzz::run(Input input)
{
    const std::string contents = input.rest();
    vyt::test::write_file(path, contents);

    const auto pid = Scan(contents).number();
    EXPECT_EQ(lh_read_pid_file(path.c_str()), pid.value_or(-1));
    if (!pid.has_value())
        EXPECT_LINES("lh_read_pid_file: failed to read pid from pidfile");

    // Whatever stood there, the daemon's own pid file replaces it.
    EXPECT_EQ(lh_process_create_pid_file(path.c_str()), 0);
    EXPECT_EQ(vyt::test::read_file(path), std::to_string(getpid()));
    EXPECT_EQ(lh_read_pid_file(path.c_str()), getpid());
}
