// `tqble bridge` as its users run it: the shipped example configuration against Debian's
// mosquitto on a loopback port, the simulator's posts behind each worker, and a real
// subscriber recording every topic, payload, retained flag and user property.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "support/Broker.h"

namespace tqble::test {
namespace {

using namespace std::chrono_literals;

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const auto at = text.find(from);
  if (at == std::string::npos) throw std::runtime_error("the example has no '" + from + "'");
  return text.replace(at, from.size(), to);
}

// `tqble bridge` on the shipped example as gateway `name` pointed at `port`, polling the state
// every second; `posts` and `more` take the place of its own [[post]] list. Its error output
// goes to `log`.
std::unique_ptr<Child> gateway(int port, const std::string& name = "garage", const std::string& posts = "",
                               const std::string& more = "", const std::string& log = "/dev/null") {
  std::string text = slurp(TQBLE_SOURCE_DIR "/bridge/bridge.example.toml");
  text = replaced(replaced(text, "port = 1883", "port = " + std::to_string(port) + more), "state = 5 ", "state = 1 ");
  text = replaced(text, "gateway = \"garage\"", "gateway = \"" + name + "\"");
  if (!posts.empty()) text = text.substr(0, text.find("\n[[post]]") + 1) + posts;
  const std::string path = ::testing::TempDir() + "bridge_" + std::to_string(getpid()) + name + ".toml";
  std::ofstream(path) << text;
  return std::make_unique<Child>(std::vector<std::string>{TQBLE_CLI_PATH, "bridge", path, "--backend", "sim"}, log);
}

// The worker process serving `post`, found by its command line; -1 when none.
pid_t workerOf(const std::string& post) {
  Child pgrep({"pgrep", "-f", "--", std::string(TQBLE_CLI_PATH) + " bridge .* --worker " + post + " "});
  std::string pid;
  return pgrep.line(pid, Clock::now() + 10s) ? std::stoi(pid) : -1;
}

// The "gateway" user property of a message; empty when it has none.
std::string gatewayOf(const Json& message) {
  return message.value("/properties/user-properties/gateway"_json_pointer, "");
}

std::string payloadOn(Broker& broker, const std::string& topic, std::chrono::milliseconds limit,
                      std::size_t from = 0) {
  const auto m = broker.waitOn(topic, limit, from);
  return m ? (*m)["payload"].get<std::string>() : "(nothing on " + topic + ")";
}

TEST(BridgeConfig, NamesTheLineOfEachMistake) {
  const std::string path = ::testing::TempDir() + "bridge_check_" + std::to_string(getpid()) + ".toml";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"root = \"t\"\n", ":1: 'gateway' is missing at the top level"},
      {"gateway = \"g\"\n[mqtt]\nport = 70000\n", ":3: 'port' must be between 1 and 65535"},
      {"gateway = \"g\"\n[mqtt]\nhost = \"h\"\nprot = 1\n", ":4: unknown key 'prot' in [mqtt]"},
      {"gateway = \"g\"\n[mqtt]\npassword = \"s3cret\"\n", ":3: a 'password' needs a 'username'"},
      {"gateway = \"g\"\n[[post]]\nid = \"p\"\nname = \"n\"\n[[post]]\nid = \"p\"\nname = \"m\"\n",
       ":6: post id 'p' is used twice"},
      {"gateway = \"g\"\n[[post]]\nid = \"p\"\nname = \"n\"\nsimulate = [\"fire\"]\n",
       ":5: unknown simulation 'fire' (mute, garbage, fault)"},
      {"gateway = \"g\"\n[poll]\nstate = \"5\"\n", ":3: 'state' must be a whole number"},
      {"gateway = \"g\"\n\n[mqtt\n", ":3: "},
  };
  for (const auto& [text, error] : cases) {
    std::ofstream(path) << text;
    const Outcome check = shell(TQBLE_CLI_PATH " bridge --check " + path);
    EXPECT_EQ(check.status, 1) << text;
    EXPECT_EQ(check.err.substr(0, check.err.find(path + error)), "tqble bridge: ") << text << "\n" << check.err;
    EXPECT_EQ(check.err.find("s3cret"), std::string::npos);
  }
}

// The example config: every documented value, Home Assistant's discovery (again after its
// birth message), and evcc's charger definition read and driven against the real output.
TEST(Bridge, PublishesTheExamplePostForHomeAssistantAndEvcc) {
  Broker broker;
  setenv("TZ", "Asia/Shanghai", 1);  // the post's clock texts are local; the bridge's times are UTC
  auto gw = gateway(broker.port);
  unsetenv("TZ");
  ASSERT_TRUE(broker.waitOn("tqble/garage-1/availability", 15s, 0, "online"));
  ASSERT_TRUE(broker.waitOn("tqble/garage-1/errors", 5s));
  const Json state = Json::parse(payloadOn(broker, "tqble/garage-1/state", 5s));
  EXPECT_EQ(std::pair(state["gun_state"], state["fault"]), std::pair(Json("plugged_in"), Json("none")));
  const Json sessions = Json::parse(payloadOn(broker, "tqble/garage-1/sessions", 5s))["sessions"];
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(sessions[0]["start"], "2023-11-13T18:26:40Z");
  EXPECT_EQ(sessions[0]["energy_kwh"], 12.4);
  broker.barrier();
  for (const Json& m : broker.messages) {
    if (m["topic"].get<std::string>().starts_with("barrier/")) continue;
    EXPECT_EQ(gatewayOf(m), "garage") << m["topic"];
  }

  // Discovery: every entity named, on the post's device and availability, reading a topic
  // the bridge fills; energy counts up.
  std::set<std::string> components;
  for (const Json& m : std::vector<Json>(broker.messages)) {
    const std::string topic = m["topic"];
    if (!topic.starts_with("homeassistant/")) continue;
    const Json c = Json::parse(m["payload"].get<std::string>());
    components.insert(topic.substr(14, topic.find('/', 14) - 14));
    EXPECT_FALSE(c["name"].get<std::string>().empty());
    EXPECT_EQ(c["availability_topic"], "tqble/garage-1/availability");
    EXPECT_EQ(c["device"]["identifiers"][0], "tqble_garage-1");
    EXPECT_TRUE(!c.contains("state_topic") || broker.waitOn(c["state_topic"], 1s)) << c["state_topic"];
    EXPECT_TRUE(c.value("device_class", "") != "energy" ||
                (c["state_class"] == "total_increasing" && c["unit_of_measurement"] == "kWh")) << topic;
  }
  EXPECT_EQ(components, (std::set<std::string>{"button", "number", "sensor", "switch"}));
  std::size_t mark = broker.messages.size();
  broker.publish("homeassistant/status", "online");
  EXPECT_TRUE(broker.waitFor(
      [](const Json& m) { return m["topic"] == "homeassistant/sensor/tqble_garage-1/energy_total_kwh/config" &&
                                 m["retain"] == 0; }, 5s, mark));

  // evcc's definition: each value it reads is there and in its domain; its enable topic starts
  // charging and the values follow.
  const std::string evcc = slurp(TQBLE_SOURCE_DIR "/bridge/evcc.yaml");
  int read = 0;
  for (auto at = evcc.find("topic: "); at != std::string::npos; at = evcc.find("topic: ", at + 1)) {
    const std::string topic = evcc.substr(at + 7, evcc.find('\n', at) - at - 7);
    if (topic.ends_with("/set")) continue;
    ++read;
    const std::string value = payloadOn(broker, topic, 1s);
    if (topic.ends_with("/status")) EXPECT_EQ(value, "B");
    else if (topic.ends_with("/enabled")) EXPECT_EQ(value, "false");
    else EXPECT_NO_THROW(std::stod(value)) << topic << " " << value;
  }
  EXPECT_EQ(read, 5);
  mark = broker.messages.size();
  broker.publish("tqble/garage-1/enable/set", "true");
  EXPECT_EQ(Json::parse(payloadOn(broker, "tqble/garage-1/result", 10s, mark)),
            Json::parse(R"({"gateway":"garage","post":"garage-1","command":"enable","ok":true,"accepted":true})"));
  EXPECT_TRUE(broker.waitOn("tqble/garage-1/status", 5s, mark, "C"));
  EXPECT_TRUE(broker.waitOn("tqble/garage-1/enabled", 5s, mark, "true"));
}

TEST(Bridge, RefusesAThousandMalformedCommandsAndChangesNothing) {
  Broker broker;
  auto gw = gateway(broker.port);
  ASSERT_TRUE(broker.waitOn("tqble/garage-1/availability", 15s, 0, "online"));
  const std::size_t mark = broker.messages.size();
  // 250 payloads on each of four topics, one mosquitto_pub per topic.
  const std::map<std::string, std::vector<std::string>> bad = {
      {"volume", {"abc", "101", "-1", std::string(65, '7'), "5.0"}},
      {"reserve", {"25:00-01:00", "08:00", "8:00-9:00", "08:60-09:00", "x"}},
      {"start", {"GO", "PRESS ", "1", "{}", "null"}},
      {"no_such", {"1", "x", "PRESS", "true", "0"}}};
  for (const auto& [command, payloads] : bad) {
    const std::string file = ::testing::TempDir() + "bad_" + std::to_string(getpid());
    std::ofstream lines(file);
    for (int i = 0; i < 50; ++i)
      for (const auto& p : payloads) lines << p << "\n";
    lines.close();
    ASSERT_EQ(shell("mosquitto_pub -q 1 -p " + std::to_string(broker.port) + " -t tqble/garage-1/" + command +
                    "/set -l <" + file).status, 0);
  }
  std::map<std::string, int> errors;
  int results = 0;
  EXPECT_TRUE(broker.waitFor(
      [&](const Json& m) {
        if (m["topic"] != "tqble/garage-1/result") return false;
        const Json r = Json::parse(m["payload"].get<std::string>());
        ++errors[r["command"].get<std::string>() + " " + r.value("error", "none")];
        return ++results == 1000;
      },
      30s, mark))
      << results;
  EXPECT_EQ(errors, (std::map<std::string, int>{{"no_such unknown_command", 250}, {"reserve malformed", 150},
                                                {"reserve out_of_range", 100}, {"start malformed", 250},
                                                {"volume malformed", 100}, {"volume out_of_range", 100},
                                                {"volume too_large", 50}}));
  // Nothing reached the post: its volume and gun are as they were until a good command.
  const std::size_t good = broker.messages.size();
  broker.publish("tqble/garage-1/volume/set", "30");
  EXPECT_TRUE(broker.waitOn("tqble/garage-1/volume", 10s, good, "30"));
  std::set<std::string> before;  // every volume and gun state published before it
  for (std::size_t i = 0; i < good; ++i) {
    const std::string topic = broker.messages[i]["topic"];
    if (topic.ends_with("/volume") || topic.ends_with("/status"))
      before.insert(topic + " " + broker.messages[i]["payload"].get<std::string>());
  }
  EXPECT_EQ(before, (std::set<std::string>{"tqble/garage-1/status B", "tqble/garage-1/volume 5"}));
}

// One gateway, three posts: a healthy one beside one answering garbage and one mute; then the
// healthy one out of range and back, its worker killed, and the gateway killed.
TEST(Bridge, KeepsAHealthyPostGoingWhateverHappensToTheOthers) {
  Broker broker;
  auto gw = gateway(broker.port, "garage",
                    "[[post]]\nid = \"a\"\nname = \"x\"\n"
                    "[[post]]\nid = \"b\"\nname = \"x\"\nsimulate = [\"garbage\"]\n"
                    "[[post]]\nid = \"c\"\nname = \"x\"\nsimulate = [\"mute\"]\n");
  ASSERT_TRUE(broker.waitOn("tqble/a/availability", 15s, 0, "online"));
  std::size_t mark = broker.messages.size();
  for (int i = 0; i < 3; ++i) {  // three more readings while the others struggle
    ASSERT_TRUE(broker.waitOn("tqble/a/state", 5s, mark));
    mark = broker.messages.size();
  }
  broker.barrier();
  EXPECT_EQ(broker.latest("tqble/a/availability"), "online");
  EXPECT_EQ(broker.latest("tqble/c/availability"), "offline");  // never answered

  // Out of range: offline within a poll period (1 s) and its request time-out; back again.
  const pid_t worker = workerOf("a");
  ASSERT_GT(worker, 0);
  mark = broker.messages.size();
  kill(worker, SIGUSR1);
  EXPECT_TRUE(broker.waitOn("tqble/a/availability", 7s, mark, "offline"));
  kill(worker, SIGUSR2);
  EXPECT_TRUE(broker.waitOn("tqble/a/availability", 20s, mark, "online"));

  // A worker killed: its last will, then a new worker brings the post back.
  mark = broker.messages.size();
  kill(worker, SIGKILL);
  EXPECT_TRUE(broker.waitOn("tqble/a/availability", 5s, mark, "offline"));
  EXPECT_TRUE(broker.waitOn("tqble/a/availability", 20s, mark, "online"));
  EXPECT_NE(workerOf("a"), worker);

  // The gateway killed: every worker dies with it and the wills turn the posts offline.
  mark = broker.messages.size();
  gw->signal(SIGKILL);
  const auto will = broker.waitOn("tqble/a/availability", 5s, mark, "offline");
  ASSERT_TRUE(will);
  EXPECT_EQ(gatewayOf(*will), "garage");
}

// The broker absent when the gateway first tries it, then restarted under it: the gateway
// keeps trying and publishes its retained values and discovery again each time. Two gateways
// with credentials share the broker and never log the password.
TEST(Bridge, OutlivesTheBrokerAndSharesItWithAnotherGateway) {
  const std::string passwd = ::testing::TempDir() + "passwd_" + std::to_string(getpid());
  ASSERT_EQ(shell("mosquitto_passwd -c -b " + passwd + " tqble s3cret-pw").status, 0);
  Broker broker("allow_anonymous false\npassword_file " + passwd + "\n", {"-u", "tqble", "-P", "s3cret-pw"});
  const std::string credentials = "\nusername = \"tqble\"\npassword = \"s3cret-pw\"";
  broker.stop();
  auto north = gateway(broker.port, "north", "[[post]]\nid = \"n1\"\nname = \"x\"\n", credentials, "");
  auto south = gateway(broker.port, "south", "[[post]]\nid = \"s1\"\nname = \"x\"\n", credentials);
  std::string log, line;
  while (log.find("connecting to broker") == std::string::npos && north->line(line, Clock::now() + 10s))
    log += line + "\n";
  broker.restart();
  for (int round = 0; round < 2; ++round) {
    for (const char* post : {"n1", "s1"}) {
      const auto state = broker.waitOn(std::string("tqble/") + post + "/state", 15s);
      ASSERT_TRUE(state) << post << " round " << round;
      EXPECT_EQ(gatewayOf(*state), post[0] == 'n' ? "north" : "south");
    }
    EXPECT_TRUE(broker.waitOn("homeassistant/switch/tqble_n1/charging/config", 10s));
    EXPECT_EQ(Json::parse(payloadOn(broker, "tqble/s1/info", 10s))["gateway"], "south");
    if (round == 0) broker.restart();  // forgets every retained message
  }
  north->signal(SIGTERM);
  while (north->line(line, Clock::now() + 10s)) log += line + "\n";
  EXPECT_NE(log.find("as tqble"), std::string::npos) << log;
  EXPECT_EQ(log.find("s3cret"), std::string::npos) << log;
}

}  // namespace
}  // namespace tqble::test
