// combridge end to end: the real comhost/comserver with the simulated PLC,
// a real mosquitto broker and combridge as a process, watched by a
// libmosquitto probe subscribed to the bridge's prefix.
#include <algorithm>
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

std::string topic(const std::string& tag) { return kPrefix + "/" + tag; }

uint32_t float_bits(float f) { return static_cast<uint32_t>(comclient::RwOper::float_bits(f)); }

bool good(const Json& j, const Json& value)
{
    return j.is_object() && j["quality"] == "good" && j["value"] == value && j["ts"].is_number_integer();
}

// The simulated PLC, the broker, the bridge and the probe. The simulated
// memory may be set up between construction and start().
class Plant {
public:
    Plant() : sim(rig::Config{.ports = {rig::PortSetup{.drv_param1 = kBus}}}) {}

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
    Json result(const std::string& tag, size_t n)
    {
        std::vector<std::string> h;
        rig::eventually([&] { return (h = probe->history(topic(tag) + "/set/result")).size() >= n; });
        return h.size() >= n ? mqtt_rig::parse(h[n - 1]) : Json();
    }
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
            "[writes]\ntimeout_ms = 3000\n" +
            tag_toml("level", kStation, kWords, 0, "writable = true") +
            tag_toml("pair", kStation, kWords, 4, "count = 2") +
            tag_toml("flags", kStation, kBits, 0, "type = \"bit\"\ncount = 3") +
            tag_toml("total", kStation, kDwords, 0, "type = \"dword\"") +
            tag_toml("temp", kStation, kWords, 10, "type = \"float\"\nwritable = true") +
            tag_toml("ro", kStation, kWords, 20) + tag_toml("remote", kRemote, kWords, 0, "writable = true");
    }
    // A [[tag]] polled every 100 ms.
    static std::string tag_toml(const char* name, int station, int kind, int start, const std::string& more = "")
    {
        return "[[tag]]\nname = \"" + std::string(name) + "\"\nstation = " + std::to_string(station) + "\nkind = " +
            std::to_string(kind) + "\nstart = " + std::to_string(start) + "\nperiod_ms = 100\n" + more + "\n";
    }
};

TEST(Bridge, PublishesEveryTagOnChangeAndAnswersEveryWrite)
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
    const std::vector<std::string> totals = p.probe->history(topic("total"));
    EXPECT_EQ(std::count_if(totals.begin(), totals.end(),
                            [](const std::string& m) { return mqtt_rig::parse(m)["quality"] == "good"; }), 1);

    // Writes: each is answered on <tag>/set/result.
    p.probe->publish(topic("level/set"), "4321");
    EXPECT_EQ(p.result("level", 1), Json({{"ok", true}}));
    EXPECT_EQ(p.word(kStation, 0), 4321u);
    EXPECT_TRUE(p.probe->wait_latest(topic("level"), [](const Json& j) { return good(j, 4321); }));

    p.probe->publish(topic("temp/set"), R"({"value": -0.5})");
    EXPECT_EQ(p.result("temp", 1), Json({{"ok", true}}));
    EXPECT_EQ(p.word(kStation, 10) | p.word(kStation, 11) << 16, float_bits(-0.5f));

    // Refused before anything reaches the PLC (every reason a payload is refused: BridgeCodec).
    p.probe->publish(topic("ro/set"), "1");
    EXPECT_EQ(p.result("ro", 1), Json({{"ok", false}, {"error", "tag is read-only"}}));
    EXPECT_EQ(p.word(kStation, 20), 0u);

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
    const std::vector<std::string> levels = p.probe->history(topic("level"));
    EXPECT_EQ(std::count_if(levels.begin() + static_cast<long>(before), levels.end(),
                            [](const std::string& m) { return mqtt_rig::parse(m)["quality"] == "error"; }), 1);

    // A bridge that dies leaves its last will.
    p.bridge->kill_hard();
    EXPECT_TRUE(rig::eventually([&] { return p.status() == "offline"; }));
}

} // namespace
