// comctl against the real server: a write lands in the local word area, a
// cached read and a realtime read print their values, and the exit status
// tells success, an error status and a failed connection apart.
#include "itest_util.h"

namespace {

TEST(Comctl, WritesReadsAndExitStatus)
{
    itest::SimServer sim(rig::Config{.ports = {{.plc_driver_no = 5, .drv_param1 = 0}}});
    sim_control_set_value(*sim.ctl, 0, 1, 3, 2, 7, 4321);
    sim.server->start();
    ::close(sim.server->connect_client());
    auto comctl = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"--port", std::to_string(sim.server->tcp_port()), "--json"});
        return itest::run_program(COMCTL_PATH, args);
    };

    itest::ProgramRun run = comctl({"write", "--kind", "249", "--start", "40", "100", "-2"});
    EXPECT_EQ(run.status, 0) << run.out;
    const itest::Segment seg(sim.server->shmid(), false);
    EXPECT_EQ(seg.word(40), 100);
    EXPECT_EQ(seg.word(41), 0xfffe);
    run = comctl({"read", "--kind", "249", "--start", "40", "--count", "2"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("\"data\":\"6400feff\""), std::string::npos) << run.out;

    run = comctl({"rt-read", "--station", "1", "--kind", "3", "--start", "7"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.out.find("\"values\":[4321]"), std::string::npos) << run.out;

    // A range that cannot be polled (4082 bytes) answers com_read_err_03.
    run = comctl({"read", "--station", "1", "--kind", "3", "--count", "2041"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("\"err\":3"), std::string::npos) << run.out;
    run = itest::run_program(COMCTL_PATH, {"--port", "1", "read"});
    EXPECT_EQ(run.status, 2) << run.out;
}

} // namespace
