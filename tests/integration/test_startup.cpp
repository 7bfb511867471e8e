// Start-up of the real server through the real parent process.
#include <cerrno>
#include <fstream>
#include <string>
#include <sys/sem.h>
#include <unistd.h>

#include "itest_util.h"

using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

rig::PortSetup port(int working_mode, int driver, std::string plugin = "sim")
{
    return {.working_mode = working_mode, .plc_driver_no = driver, .plugin = std::move(plugin)};
}

// Connects once, so that the listener is known to be up.
void expect_listening(const rig::Server& s, std::chrono::milliseconds deadline = 15s)
{
    const int fd = s.connect_client(deadline);
    EXPECT_GE(fd, 0);
    ::close(fd);
}

} // namespace

TEST(Startup, MixedConfigurationPrintsStartupLinesAndStartsThreads)
{
    // After the first four ports, six CAN ports: one more than there are CAN slots.
    std::vector<rig::PortSetup> ports = {port(1, 5), port('U', 5), port(160, 5), port(1, 65535)};
    ports.resize(10, port(16, 7));
    rig::Server s({.ports = ports});
    std::ofstream(s.dir() + "/spi") << "";
    s.start();
    ASSERT_TRUE(s.wait_for("too many CAN ports: port 9 gets no thread\r\n"));
    ASSERT_TRUE(rig::eventually([&] { return s.count("can process thread\r\n") == 5; }));
    ASSERT_TRUE(s.wait_for("dev=\r\n")); // the 'U' port has no device path
    expect_listening(s);

    const std::string out = s.output();
    const std::string head = "PORT=" + std::to_string(static_cast<int16_t>(s.tcp_port())) + "\r\nport_num=10\r\n";
    for (const std::string& line :
         {head + "release sem\nreleased\n", "working_mode=1\r\nplc_driver_no=5\r\n"s,
          "working_mode=85\r\nplc_driver_no=5\r\n"s, "working_mode=160\r\nplc_driver_no=5\r\n"s,
          "working_mode=1\r\nplc_driver_no=65535\r\n"s, "working_mode=16\r\nplc_driver_no=7\r\n"s,
          "deviceport=0\r\ndev=/dev/ttyS1\r\n"s, "SRAM open error\r\n"s}) // no SRAM file: normal lines
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    // Two polling threads (serial and 'U'), five CAN threads, none for the rest.
    EXPECT_EQ(s.count("process thread\r\n") - s.count("can process thread\r\n"), 2u);
    EXPECT_EQ(s.count("can process thread\r\n"), 5u);

    // The server wrote its pid into the header.
    const itest::Segment seg(s.shmid(), false);
    EXPECT_EQ(reinterpret_cast<const shm_head*>(seg.base())->server_pid, static_cast<uint32_t>(s.server_pid()));
}

TEST(Startup, LoaderMessagesForMissingLibraryMissingInit2AndDriver106)
{
    rig::Server s({.ports = {port(1, 5, "none"), port(1, 5, SIM_PLUGIN_NOINIT2_PATH), port(1, 106)}});
    s.start();
    ASSERT_TRUE(s.wait_for("deviceport=2\r\n"));
    ASSERT_TRUE(s.wait_for("plc_driver_no=1004\r\n"));
    const std::string out = s.output();
    const size_t p1 = out.find("deviceport=1\r\n");
    ASSERT_NE(p1, std::string::npos);
    // Port 0: no library at all; every required lookup reports, nothing is called.
    const std::string port0 = out.substr(0, p1);
    for (const char* line : {"so not find\n", "didn't find ev_plc_init\n", "didn't find ev_plc_read\n",
                             "didn't find ev_plc_write\n"})
        EXPECT_NE(port0.find(line), std::string::npos) << line << "\n" << port0;
    // Port 1: the library lacks only ev_plc_init2.
    const std::string port1 = out.substr(p1);
    EXPECT_NE(port1.find("didn't find ev_plc_init2\n"), std::string::npos);
    EXPECT_EQ(port1.find("so not find"), std::string::npos);
    // Port 2: configured as 106 (start-up line), runs as 1004 (loader line).
    EXPECT_NE(out.find("plc_driver_no=106\r\n"), std::string::npos);
}

// The SRAM swap flag exchanges the first two serial lines; a busy TCP port
// is retried until it is free; nothing outlives the stop.
TEST(Startup, SwappedSerialLinesBusyTcpPortAndCleanStop)
{
    const int blocker = rig::listen_socket();
    rig::Server s({.ports = {port(1, 5), port(1, 5)}, .tcp_port = rig::local_port(blocker)});
    std::string sram(2048, '\0');
    sram[550] = 1;
    std::ofstream(s.dir() + "/sram", std::ios::binary) << sram;
    s.start();
    ASSERT_TRUE(rig::eventually([&] { return s.count(" Bind socket error\r\n") >= 2; }, 10s));
    ::close(blocker);
    expect_listening(s, 10s);
    ASSERT_TRUE(s.wait_for("deviceport=1\r\ndev=/dev/ttyS1\r\n"));
    EXPECT_NE(s.output().find("deviceport=0\r\ndev=/dev/ttyS2\r\n"), std::string::npos);

    s.stop();
    shmid_ds info{};
    EXPECT_EQ(::shmctl(s.shmid(), IPC_STAT, &info), -1);
    EXPECT_EQ(::semctl(s.semid(), 0, GETVAL), -1);
    EXPECT_TRUE(rig::eventually([&] { return ::kill(s.server_pid(), 0) == -1 && errno == ESRCH; }, 5s));
}

TEST(Startup, BadArgumentsEndTheServerWithAMessage)
{
    EXPECT_EQ(itest::run_program(COMSERVER_PATH, {"1", "2"}).out, "usage: comserver MODE SHMID SEMID\r\n");
    const std::string out = itest::run_program(COMSERVER_PATH, {"1", "-1", "-1"}).out;
    EXPECT_EQ(out.rfind("shmat error: ", 0), 0u) << out;
}
