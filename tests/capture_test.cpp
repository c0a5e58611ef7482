// `tqble capture` on captures recorded in the radio guest and made by hand, and the
// Wireshark dissector on the same files when tshark is installed.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "support/Processes.h"

namespace tqble::test {
namespace {

using nlohmann::json;
const std::string kCaptures = TQBLE_SOURCE_DIR "/tests/captures";

// Runs `command` in the folder of the captures.
Outcome run(const std::string& command) { return shell("cd " + kCaptures + " && " + command); }

json timeline(const std::string& arguments) {
  const Outcome r = run(std::string(TQBLE_CLI_PATH) + " capture --json " + arguments);
  EXPECT_EQ(r.status, 0) << r.err;
  return json::parse(r.out);
}

// The exchanges of one link (the app's side is link 2: adapter 1).
std::vector<json> exchangesOf(const json& t, int link) {
  std::vector<json> list;
  for (const auto& e : t["exchanges"])
    if (e["link"] == link) list.push_back(e);
  return list;
}

TEST(Capture, RadioRunReadsAsTheTwelveCommandsWithTheAnswersTheManagerDecoded) {
  const json t = timeline("radio-commands.btsnoop");
  ASSERT_EQ(t["links"].size(), 2u);
  for (const auto& link : t["links"]) {
    EXPECT_EQ(std::pair(link["writeHandle"], link["notifyHandle"]), std::pair(json("0x001A"), json("0x0017")));
    EXPECT_TRUE(link["discovered"]);
  }
  const auto app = exchangesOf(t, 2);
  const auto post = exchangesOf(t, 1);
  std::vector<std::string> commands;
  for (const auto& e : app) commands.push_back(e["command"]);
  // The automatic system-information query first, then the scenario's twelve (0xB5 twice).
  EXPECT_EQ(commands, (std::vector<std::string>{
                          "querySystemInfoWithError", "synchroTimeWithError",
                          "querySystemInfoWithError", "setVolumeWithVolumeSize",
                          "orderChargerWithStartHour", "startChargingWithError",
                          "queryChargerStateWithError", "queryChargerStateWithError",
                          "stopChargeWithError", "queryHistoryChargingListWithError",
                          "queryCumulationElecQuantityWithError",
                          "queryHistoryErrorLogListWithError", "runningDiagnosticInfoWithError"}));
  ASSERT_EQ(post.size(), app.size());
  for (std::size_t i = 0; i < app.size(); ++i) {
    const json& e = app[i];
    EXPECT_EQ(e["warnings"], json::array()) << i;
    ASSERT_TRUE(e["answer"].is_object()) << i;
    // Both ends of the link saw the same request and the same answer.
    EXPECT_EQ(e["request"]["bytes"], post[i]["request"]["bytes"]) << i;
    EXPECT_EQ(e["answer"]["bytes"], post[i]["answer"]["bytes"]) << i;
    const double last = e["pieces"].back()["time"];
    EXPECT_DOUBLE_EQ(e["answer"]["latency"].get<double>(), last - e["request"]["time"].get<double>());
  }
  // The typed values of the post's answers to the scenario's settings and queries.
  for (int i : {1, 3, 4, 5, 8}) EXPECT_EQ(app[i]["answer"]["values"], json({{"accepted", true}, {"result_type", 0}}));
  EXPECT_EQ(app[0]["answer"]["values"]["manufacturer"], "Velmora");
  EXPECT_EQ(app[0]["answer"]["values"]["firmware_version"], "1.2.10");
  EXPECT_EQ(app[6]["answer"]["values"]["voltage_v"], 220.0);
  EXPECT_EQ(app[6]["answer"]["values"]["gun_state"], "charging");
  EXPECT_EQ(app[6]["pieces"].size(), 2u);  // 20 + 6 bytes
  EXPECT_EQ(app[9]["answer"]["values"].size(), 1u);  // the session just stopped
  EXPECT_EQ(app[10]["answer"]["values"], json({{"energy_total_kwh", 120.001}}));
  EXPECT_EQ(app[11]["answer"]["values"], json::array());
  EXPECT_EQ(app[12]["answer"]["values"]["firmware_version"], "1.2.10");
  EXPECT_EQ(app[12]["answer"]["cmdType"], 13);
}

TEST(Capture, FlagsALostPieceAndAWrongChecksum) {
  const json lost = timeline("radio-lost-piece.btsnoop");
  const auto app = exchangesOf(lost, 2);
  ASSERT_EQ(app.size(), 1u);
  EXPECT_EQ(app[0]["answer"], nullptr);
  EXPECT_EQ(app[0]["warnings"], json({"the answer is incomplete by the end of the capture: 47 bytes "
                                      "gathered, the length field announces 67: a piece is lost"}));

  const json bad = timeline("wrong-checksum.btsnoop");
  std::vector<json> flagged;
  for (const auto& e : bad["exchanges"])
    if (!e["warnings"].empty()) flagged.push_back(e);
  ASSERT_EQ(flagged.size(), 1u);  // only the app's side received the changed byte
  EXPECT_EQ(flagged[0]["link"], 2);
  EXPECT_EQ(flagged[0]["command"], "synchroTimeWithError");
  EXPECT_EQ(flagged[0]["warnings"], json({"checksum is 0xD8, not 0xD9"}));
  // The manager checks no checksum: the answer is decoded all the same.
  EXPECT_EQ(flagged[0]["answer"]["values"], json({{"accepted", true}, {"result_type", 0}}));
}

TEST(Capture, KeepsOnlyThePostsTrafficAmongOtherDevicesInAnH4Log) {
  const json t = timeline("mixed-devices.btsnoop");
  EXPECT_EQ(t["datalink"], 1002);
  EXPECT_EQ(t["links"][1]["peer"], "C4:7C:8D:6A:3B:21");
  EXPECT_EQ(t["notes"], json({"link 2: 2 ATT values, but the capture has no discovery of FFF3 and "
                              "FFF4: give their handles"}));
  ASSERT_EQ(t["exchanges"].size(), 2u);
  const json& state = t["exchanges"][0];
  // A notification split over two ACL fragments, then an indication: 20 + 6 bytes.
  EXPECT_EQ(state["pieces"].size(), 2u);
  EXPECT_EQ(state["answer"]["values"]["current_a"], 31.8);
  EXPECT_EQ(state["warnings"], json::array());
  EXPECT_EQ(t["exchanges"][1]["request"], nullptr);
  EXPECT_EQ(t["exchanges"][1]["warnings"],
            json({"an answer with no request: the manager ignores it"}));

  // Given handles fill the link without discovery: the other device's look-alike frames
  // are then answers nobody asked for.
  const json given = timeline("mixed-devices.btsnoop --write-handle 0x21 --notify-handle 35");
  EXPECT_EQ(given["exchanges"].size(), 4u);
  EXPECT_EQ(given["notes"], json::array());
}

TEST(Capture, RefusesBadFilesWithTheRecordAndOffsetAndReadsStandardInput) {
  const std::string tool = TQBLE_CLI_PATH;
  const std::vector<std::pair<std::string, std::string>> cases = {
      {tool + " capture truncated.btsnoop",
       "tqble capture: record 200 at offset 13653: truncated: the record holds 136 bytes, the "
       "file has 3 left\n"},
      {tool + " capture corrupted-record.btsnoop",
       "tqble capture: record 100 at offset 6937: corrupted: 16777215 bytes included of 11\n"},
      {"head -c 30 radio-commands.btsnoop | " + tool + " capture -",
       "tqble capture: record 1 at offset 16: truncated: 14 bytes left of a 24-byte record "
       "header\n"},
      {tool + " capture README.md",
       "tqble capture: not a btsnoop file: it does not begin with the 16-byte btsnoop header\n"},
  };
  for (const auto& [command, err] : cases) {
    const Outcome r = run(command);
    EXPECT_EQ(std::pair(r.status, r.err), std::pair(1, err)) << command;
  }
  const Outcome piped = run("cat wrong-checksum.btsnoop | " + tool + " capture - --json");
  EXPECT_EQ(json::parse(piped.out), timeline("wrong-checksum.btsnoop"));
}

TEST(Capture, WiresharkDissectorShowsCommandsChecksumsAndReassembledAnswers) {
  if (run("command -v tshark").status != 0) GTEST_SKIP() << "tshark is not installed";
  const Outcome r = run("tshark -X lua_script:" TQBLE_SOURCE_DIR "/tools/wireshark/tqble.lua -r wrong-checksum.btsnoop"
                        " -Y tqble.pieces -T fields -e tqble.command -e tqble.checksum_status -e tqble.pieces 2>/dev/null");
  std::istringstream lines(r.out);
  std::vector<std::string> answers;
  for (std::string line; std::getline(lines, line);) answers.push_back(line);
  // Thirteen answers as the post sent them and as the app received them.
  ASSERT_EQ(answers.size(), 26u) << r.out;
  EXPECT_EQ(answers[0], "0xb1\tgood\t4");
  EXPECT_EQ(std::count(answers.begin(), answers.end(), "0xb0\tbad (0xD9 expected)\t1"), 1);
  EXPECT_EQ(std::count(answers.begin(), answers.end(), "0xb0\tgood\t1"), 1);
}

}  // namespace
}  // namespace tqble::test
