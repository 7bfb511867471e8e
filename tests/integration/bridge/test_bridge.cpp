// combridge end to end: the real comhost/comserver with the simulated PLC,
// a real mosquitto broker and combridge as a process, watched by a
// libmosquitto probe subscribed to the bridge's prefix.
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

#include "itest_util.h"
#include "mqtt_rig.h"

using namespace std::chrono_literals;
using mqtt_rig::Json;

namespace {

constexpr uint32_t kBus = 0;
constexpr uint16_t kStation = 1;
constexpr uint16_t kRemote = 2;  // the station that stops answering
constexpr uint8_t kWords = 3, kBits = 1, kDwords = 4;
const std::string kPrefix = "plant/hmi1";

std::string topic(const std::string& tag)
{
    return kPrefix + "/" + tag;
}

uint32_t float_bits(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

bool good(const Json& j, const Json& value)
{
    return j.is_object() && j["quality"] == "good" && j["value"] == value && j["ts"].is_number_integer();
}

// The simulated PLC, the broker, the bridge and the probe. The simulated
// memory may be set up between construction and start().
class Plant {
public:
    Plant() : sim(rig::Config{.ports = {rig::PortSpec{.drv_param1 = kBus}}}) {}

    void start()
    {
        sim.server->start();
        broker.start();
        bridge = std::make_unique<mqtt_rig::Bridge>(config());
        probe = std::make_unique<mqtt_rig::Probe>(broker.port(), kPrefix + "/#");
    }

    SimControl& ctl() { return *sim.ctl; }
    uint32_t word(uint16_t station, int32_t addr) { return sim_control_get_value(ctl(), kBus, station, kWords, 2, addr); }
    void set_word(uint16_t station, int32_t addr, uint32_t v) { sim_control_set_value(ctl(), kBus, station, kWords, 2, addr, v); }
    // The result of the n-th write to tag, parsed.
    Json result(const std::string& tag, size_t n) { return mqtt_rig::parse(probe->wait_nth(topic(tag) + "/set/result", n)); }
    std::string status() const { return probe->last(kPrefix + "/$status"); }

    itest::SimServer sim;
    mqtt_rig::Broker broker;
    std::unique_ptr<mqtt_rig::Bridge> bridge;
    std::unique_ptr<mqtt_rig::Probe> probe;

private:
    std::string config() const
    {
        return "topic_prefix = \"" + kPrefix + "\"\n"
            "[comserver]\nport = " + std::to_string(sim.server->tcp_port()) + "\n"
            "[broker]\nport = " + std::to_string(broker.port()) + "\nclient_id = \"bridge-under-test\"\n"
            "[writes]\ntimeout_ms = 3000\n"
            R"(
[[tag]]
name = "level"
station = 1
kind = 3
start = 0
period_ms = 100
writable = true
[[tag]]
name = "pair"
station = 1
kind = 3
start = 4
count = 2
period_ms = 100
[[tag]]
name = "flags"
station = 1
kind = 1
type = "bit"
start = 0
count = 3
period_ms = 100
[[tag]]
name = "total"
station = 1
kind = 4
type = "dword"
start = 0
period_ms = 100
[[tag]]
name = "temp"
station = 1
kind = 3
type = "float"
start = 10
period_ms = 100
writable = true
[[tag]]
name = "ro"
station = 1
kind = 3
start = 20
period_ms = 100
[[tag]]
name = "remote"
station = 2
kind = 3
start = 0
period_ms = 100
writable = true
)";
    }
};

TEST(Bridge, PublishesEveryTagOnChangeWithItsQuality)
{
    Plant p;
    p.set_word(kStation, 0, 1234);
    p.set_word(kStation, 4, 1);
    p.set_word(kStation, 5, 65535);
    sim_control_set_bit(p.ctl(), kBus, kStation, kBits, 0, true);
    sim_control_set_bit(p.ctl(), kBus, kStation, kBits, 2, true);
    sim_control_set_value(p.ctl(), kBus, kStation, kDwords, 4, 0, 0xdeadbeef);
    p.set_word(kStation, 10, float_bits(2.5f) & 0xffff);  // low-order word first
    p.set_word(kStation, 11, float_bits(2.5f) >> 16);
    p.set_word(kRemote, 0, 77);
    p.start();

    EXPECT_TRUE(rig::eventually([&] { return p.status() == "online"; }));
    const std::pair<const char*, Json> expected[] = {
        {"level", 1234}, {"pair", {1, 65535}}, {"flags", {true, false, true}},
        {"total", 0xdeadbeefu}, {"temp", 2.5}, {"ro", 0}, {"remote", 77},
    };
    for (const auto& [tag, value] : expected)
        EXPECT_TRUE(p.probe->wait_latest(topic(tag), [&](const Json& j) { return good(j, value); })) << tag;

    p.set_word(kStation, 0, 1235);
    EXPECT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) { return good(j, 1235); }));

    // A silent station turns to "timeout" without a value, and back.
    sim_control_set_station(p.ctl(), kBus, kRemote, SIM_TIMEOUT, 0);
    EXPECT_TRUE(p.probe->wait_latest(topic("remote"), [](const Json& j) {
        return j["quality"] == "timeout" && j["value"].is_null();
    }));
    sim_control_set_station(p.ctl(), kBus, kRemote, SIM_OK, 0);
    EXPECT_TRUE(p.probe->wait_latest(topic("remote"), [](const Json& j) { return good(j, 77); }));

    // Dozens of polls later, an unchanged tag has still been published once
    // with its value: every message is retained state, never a repeat.
    int good_totals = 0;
    for (const std::string& m : p.probe->history(topic("total")))
        good_totals += mqtt_rig::parse(m)["quality"] == "good";
    EXPECT_EQ(good_totals, 1);
}

TEST(Bridge, WritesReachThePlcAndEveryFailureIsAnswered)
{
    Plant p;
    p.start();
    ASSERT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) { return j["quality"] == "good"; }));

    p.probe->publish(topic("level/set"), "4321");
    EXPECT_EQ(p.result("level", 1), Json({{"ok", true}}));
    EXPECT_EQ(p.word(kStation, 0), 4321u);
    EXPECT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) { return good(j, 4321); }));

    p.probe->publish(topic("temp/set"), R"({"value": -0.5})");
    EXPECT_EQ(p.result("temp", 1), Json({{"ok", true}}));
    EXPECT_EQ(p.word(kStation, 10) | p.word(kStation, 11) << 16, float_bits(-0.5f));

    // Refused before anything reaches the PLC.
    p.set_word(kStation, 0, 5);
    p.probe->publish(topic("ro/set"), "1");
    p.probe->publish(topic("level/set"), "{not json");
    p.probe->publish(topic("level/set"), "70000");
    p.probe->publish(topic("level/set"), "[1, 2]");
    EXPECT_EQ(p.result("ro", 1), Json({{"ok", false}, {"error", "tag is read-only"}}));
    EXPECT_EQ(p.result("level", 2)["error"], "bad payload: payload is not JSON");
    EXPECT_EQ(p.result("level", 3)["error"], "bad payload: expected an integer in -32768..65535");
    EXPECT_EQ(p.result("level", 4)["error"], "bad payload: expected a single value");
    EXPECT_EQ(p.word(kStation, 0), 5u);

    // A station that does not answer fails the write.
    sim_control_set_station(p.ctl(), kBus, kRemote, SIM_TIMEOUT, 0);
    p.probe->publish(topic("remote/set"), "9");
    EXPECT_EQ(p.result("remote", 1), Json({{"ok", false}, {"error", "station did not answer"}}));

    // A clean stop says "offline".
    EXPECT_EQ(p.bridge->stop(), 0);
    EXPECT_TRUE(rig::eventually([&] { return p.status() == "offline"; }));
}

TEST(Bridge, SurvivesBrokerAndServerOutagesWithoutLosingChanges)
{
    Plant p;
    p.set_word(kStation, 0, 1);
    p.start();
    ASSERT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) { return good(j, 1); }));

    // A change made while the broker is down arrives once it is back, and so
    // does every later one. The restarted broker has lost the retained
    // values, so unchanged tags are published again too.
    ASSERT_TRUE(p.probe->wait_latest(topic("pair"), [](const Json& j) { return good(j, {0, 0}); }));
    const size_t pairs = p.probe->history(topic("pair")).size();
    p.broker.kill_hard();
    p.set_word(kStation, 0, 2);
    std::this_thread::sleep_for(300ms);  // several polls while the broker is away
    p.broker.start();
    EXPECT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) { return good(j, 2); }, 30s));
    p.set_word(kStation, 0, 3);
    EXPECT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) { return good(j, 3); }));
    EXPECT_GT(p.probe->history(topic("pair")).size(), pairs);

    // While comserver is away every tag reports "error" once, however many
    // reconnection attempts fail; then the values come back.
    const size_t before = p.probe->history(topic("level")).size();
    p.sim.server->stop();
    EXPECT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) {
        return j["quality"] == "error" && j["value"].is_null();
    }));
    std::this_thread::sleep_for(2s);  // the bridge retries after 0.5 s and 1.5 s
    p.sim.server->start();
    EXPECT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) { return good(j, 3); }, 30s));
    int errors = 0;
    for (size_t i = before; i < p.probe->history(topic("level")).size(); ++i)
        errors += mqtt_rig::parse(p.probe->history(topic("level"))[i])["quality"] == "error";
    EXPECT_EQ(errors, 1);

    // A bridge that dies leaves its last will.
    p.bridge->kill_hard();
    EXPECT_TRUE(rig::eventually([&] { return p.status() == "offline"; }));
}

} // namespace
