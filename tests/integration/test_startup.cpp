// Start-up of the real server through the real parent process.
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/port_config.h"
#include "itest_util.h"

using namespace std::chrono_literals;

namespace {

rig::PortSpec port(int working_mode, int driver, std::string plugin = "sim")
{
    rig::PortSpec p;
    p.working_mode = working_mode;
    p.plc_driver_no = driver;
    p.plugin = std::move(plugin);
    return p;
}

} // namespace

TEST(Startup, MixedConfigurationPrintsStartupLinesAndStartsThreads)
{
    rig::Config cfg;
    cfg.ports = {port(1, 5), port('U', 5), port(160, 5), port(1, 65535), port(16, 7)};
    rig::Server s(cfg);
    std::ofstream(s.dir() + "/spi") << "";
    s.start();

    ASSERT_TRUE(s.wait_for("can process thread\r\n"));
    ASSERT_TRUE(s.wait_for("dev=\r\n")); // the 'U' port has no device path
    const int fd = s.connect_client();
    ASSERT_GE(fd, 0);
    ::close(fd);

    const std::string out = s.output();
    const std::string expected_head = "PORT=" + std::to_string(static_cast<int16_t>(s.tcp_port())) +
                                      "\r\nport_num=5\r\nrelease sem\nreleased\n";
    EXPECT_NE(out.find(expected_head), std::string::npos) << out;
    EXPECT_NE(out.find("working_mode=1\r\nplc_driver_no=5\r\n"), std::string::npos);
    EXPECT_NE(out.find("working_mode=85\r\nplc_driver_no=5\r\n"), std::string::npos);
    EXPECT_NE(out.find("working_mode=160\r\nplc_driver_no=5\r\n"), std::string::npos);
    EXPECT_NE(out.find("working_mode=1\r\nplc_driver_no=65535\r\n"), std::string::npos);
    EXPECT_NE(out.find("working_mode=16\r\nplc_driver_no=7\r\n"), std::string::npos);
    // Two polling threads (serial and 'U'), one CAN thread, none for the rest.
    EXPECT_EQ(s.count("process thread\r\n") - s.count("can process thread\r\n"), 2u);
    EXPECT_EQ(s.count("can process thread\r\n"), 1u);
    EXPECT_NE(out.find("deviceport=0\r\ndev=/dev/ttyS1\r\n"), std::string::npos);
    EXPECT_NE(out.find("SRAM open error\r\n"), std::string::npos); // no SRAM file: normal lines

    // The server wrote its pid into the header.
    void* seg = ::shmat(s.shmid(), nullptr, SHM_RDONLY);
    ASSERT_NE(seg, reinterpret_cast<void*>(-1));
    EXPECT_EQ(static_cast<const shm_head*>(seg)->server_pid, static_cast<uint32_t>(s.server_pid()));
    ::shmdt(seg);
}

TEST(Startup, SwappedSerialLinesFromSramFlag)
{
    rig::Config cfg;
    cfg.ports = {port(1, 5), port(1, 5)};
    rig::Server s(cfg);
    {
        std::ofstream sram(s.dir() + "/sram", std::ios::binary);
        std::string bytes(2048, '\0');
        bytes[550] = 1;
        sram << bytes;
    }
    s.start();
    ASSERT_TRUE(s.wait_for("deviceport=1\r\ndev=/dev/ttyS1\r\n"));
    EXPECT_NE(s.output().find("deviceport=0\r\ndev=/dev/ttyS2\r\n"), std::string::npos);
}

TEST(Startup, LoaderMessagesForMissingLibraryMissingInit2AndDriver106)
{
    rig::Config cfg;
    cfg.ports = {port(1, 5, "none"), port(1, 5, SIM_PLUGIN_NOINIT2_PATH), port(1, 106)};
    rig::Server s(cfg);
    s.start();
    ASSERT_TRUE(s.wait_for("deviceport=2\r\n"));
    ASSERT_TRUE(s.wait_for("plc_driver_no=1004\r\n"));
    const std::string out = s.output();
    // Port 0: no library at all; every required lookup reports, nothing is called.
    const size_t p0 = out.find("deviceport=0\r\n");
    const size_t p1 = out.find("deviceport=1\r\n");
    ASSERT_NE(p0, std::string::npos);
    ASSERT_NE(p1, std::string::npos);
    const std::string port0 = out.substr(p0, p1 - p0);
    EXPECT_NE(port0.find("so not find\n"), std::string::npos) << port0;
    EXPECT_NE(port0.find("didn't find ev_plc_init\n"), std::string::npos);
    EXPECT_NE(port0.find("didn't find ev_plc_read\n"), std::string::npos);
    EXPECT_NE(port0.find("didn't find ev_plc_write\n"), std::string::npos);
    // Port 1: the library lacks only ev_plc_init2.
    const std::string port1 = out.substr(p1);
    EXPECT_NE(port1.find("didn't find ev_plc_init2\n"), std::string::npos);
    EXPECT_EQ(port1.find("so not find"), std::string::npos);
    // Port 2: configured as 106 (start-up line), runs as 1004 (loader line).
    EXPECT_NE(out.find("plc_driver_no=106\r\n"), std::string::npos);
}

TEST(Startup, BusyTcpPortIsRetriedUntilFree)
{
    const int blocker = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    a.sin_port = 0;
    ASSERT_EQ(::bind(blocker, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(blocker, 1), 0);
    socklen_t len = sizeof a;
    ::getsockname(blocker, reinterpret_cast<sockaddr*>(&a), &len);

    rig::Config cfg;
    cfg.tcp_port = ntohs(a.sin_port);
    rig::Server s(cfg);
    s.start();
    ASSERT_TRUE(rig::eventually([&] { return s.count(" Bind socket error\r\n") >= 2; }, 10s));
    ::close(blocker);
    const int fd = s.connect_client(10s);
    ASSERT_GE(fd, 0);
    ::close(fd);
}

TEST(Startup, NoIpcObjectsOrProcessesLeftAfterStop)
{
    rig::Config cfg;
    cfg.ports = {port(1, 5)};
    int shmid = -1;
    int semid = -1;
    pid_t pid = -1;
    {
        rig::Server s(cfg);
        s.start();
        shmid = s.shmid();
        semid = s.semid();
        pid = s.server_pid();
        ASSERT_GE(shmid, 0);
        ASSERT_GE(semid, 0);
        s.stop();
    }
    shmid_ds info{};
    EXPECT_EQ(::shmctl(shmid, IPC_STAT, &info), -1);
    EXPECT_EQ(::semctl(semid, 0, GETVAL), -1);
    EXPECT_TRUE(rig::eventually([&] { return ::kill(pid, 0) == -1 && errno == ESRCH; }, 5s));
}

TEST(Startup, BadArgumentsEndTheServerWithAMessage)
{
    EXPECT_EQ(itest::run_program(COMSERVER_PATH, {"1", "2"}).out, "usage: comserver MODE SHMID SEMID\r\n");
    const std::string out = itest::run_program(COMSERVER_PATH, {"1", "-1", "-1"}).out;
    EXPECT_EQ(out.rfind("shmat error: ", 0), 0u) << out;
}

TEST(Startup, SixthCanPortGetsNoThread)
{
    rig::Config cfg;
    for (int i = 0; i < 6; ++i) {
        cfg.ports.push_back(port(16, 7));
    }
    rig::Server s(cfg);
    std::ofstream(s.dir() + "/spi") << "";
    s.start();
    ASSERT_TRUE(s.wait_for("too many CAN ports: port 5 gets no thread\r\n"));
    ASSERT_TRUE(rig::eventually([&] { return s.count("can process thread\r\n") == 5; }));
    const int fd = s.connect_client();
    ASSERT_GE(fd, 0);
    ::close(fd);
    EXPECT_EQ(s.count("can process thread\r\n"), 5u);
}
