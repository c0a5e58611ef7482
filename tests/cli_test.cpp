// The tqble tool as its users run it: its exact frames, decodings, texts and failures, its
// client commands against the simulated post, and `tqble capture` on captures recorded in
// the radio guest and made by hand (with the Wireshark dissector on the same files when
// tshark is installed).
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>

#include "support/Commands.h"
#include "support/Processes.h"

namespace tqble::test {
namespace {

using namespace std::chrono_literals;

using nlohmann::json;

// Runs `command` in the shell, in the folder of the captures, where $TQBLE is the built tool.
Outcome run(const std::string& command) {
  return shell("cd " TQBLE_SOURCE_DIR "/tests/captures && TQBLE=" TQBLE_CLI_PATH "; " + command);
}

// Runs a table of (shell command, exit status, the whole output or after '~' a part of it, the
// whole error output).
using Cases = std::vector<std::tuple<std::string, int, std::string, std::string>>;
void expectRuns(const Cases& cases) {
  for (const auto& [command, status, out, err] : cases) {
    const Outcome r = run(command);
    EXPECT_EQ(std::pair(r.status, r.err), std::pair(status, err)) << command;
    EXPECT_TRUE(out[0] == '~' ? r.out.find(out.substr(1)) != std::string::npos : r.out == out) << command << "\n" << r.out;
  }
}

TEST(CommandLineTool, PrintsTheExactFrameOrJsonWithHeaderWarningsLogsWhereAskedAndFailsWithOneLine) {
  const std::string info = "$TQBLE decode querySystemInfoWithError 68b1" + std::string(54, '0') + "66" +
                           std::string(72, '0') + "08 --log";
  const std::string infoLog = "桩号:  00000000000000000000\n获取的音量大小: 00\n充电模式: 00\n";
  // command, exit status, the whole output or (after '~') a part of it, the log or error
  // clang-format off
  expectRuns({
      {"$TQBLE frame orderChargerWithStartHour 22 30 6 0", 0,
       "68 B3 00 00 05 00 00 D1 01 16 1E 06 00  orderChargerWithStartHour 0xB3\n", ""},
      {"$TQBLE frame synchroTimeWithError --time 1700000000", 0,
       "68 B0 00 00 04 00 00 1B 00 F1 53 65  synchroTimeWithError 0xB0\n", ""},
      {"$TQBLE frame querySystemInfoWithError --status 3 --rand 16", 0,
       "68 B1 00 00 01 00 00 D8 00  querySystemInfoWithError 0xB1\n", ""},
      {"echo '68-B6-00-00-01-00-00-DE:01' | $TQBLE decode stopChargeWithError -", 0,
       "{\n  \"command\": \"stopChargeWithError\",\n  \"code\": \"0xB6\",\n"
       "  \"bytes\": \"68 B6 00 00 01 00 00 DE 01\",\n  \"warnings\": [],\n"
       "  \"answer\": {\n    \"resultType\": 0\n  },\n  \"typed\": {\n    \"accepted\": false,\n    \"result_type\": 1\n  }\n}\n", ""},  // the manager says success whatever the post sent
      {"$TQBLE decode stopChargeWithError 0xAA 0xB7 0x00 0x00 0x02 0x00 0x00 0x00 0x01", 0,  // refusal by the wrong post
       "~\"warnings\": [\n    \"start byte is 0xAA, not 0x68\",\n    \"command byte is 0xB7, not 0xB6\",\n"
       "    \"length field says 2 body bytes, the answer has 1\",\n    \"checksum is 0x00, not 0x1E\"\n  ]", ""},
      {"$TQBLE decode stopChargeWithError 68b6", 0, "~\"the answer has 2 bytes, fewer than the 8 of a frame header\"", ""},
      {"$TQBLE decode queryChargingDataWithError 0x68B50000120000 5e:06:01:02:03:04 e8-03-5c-08 00 00 10 00 3c 00 00 00 00",
       0,  // live data read as charger state
       "~\"warnings\": [],\n  \"answer\": {\n    \"serialNumber\": \"1234\",\n    \"elecQuantity\": 1000,\n"
       "    \"voltage\": 2140,\n    \"electric\": 16,\n    \"duration\": 60,\n    \"gunStatus\": \"正在充电中\",", ""},
      {"$TQBLE decode queryHistoryErrorLogListWithError '68 34 00 00 00 00 00 00 00 00 00'", 0, "~\"answer\": [],\n  \"typed\": []\n", ""},
      {info, 0, "~\"title\": \"厂商\",\n      \"content\": \"Velmora\"", infoLog},
      {"TQBLE_LOG=off " + info, 0, "~\"Velmora\"", ""},
      {"f=$(mktemp) && TQBLE_LOG=$f " + info + " >/dev/null && cat $f && rm $f", 0, infoLog, ""},
      {"TQBLE_LOG=/nonexistent/tqble.log " + info + " >/dev/null", 0, "",
       "TQBLE_LOG: cannot open '/nonexistent/tqble.log' (No such file or directory); logging to standard error\n" + infoLog},
      {"$TQBLE decode runningDiagnosticInfoWithError " + std::string(76, '0') + "03" + std::string(54, '0'), 0,
       "~\"chargeState\": \"充电中\"", ""},
      {"$TQBLE frame launchRocket", 2, "", "tqble frame: unknown command 'launchRocket'\n"},
      {"$TQBLE frame stopChargeWithError --rand 256", 2, "", "tqble frame: --rand must be an integer from 0 to 255, not '256'\n"},
      {"$TQBLE decode queryChargerStateWithError 68:b5:0g", 2, "", "tqble decode: not a hex digit at position 8\n"},
      {"$TQBLE decode queryChargerStateWithError 0x68b", 2, "", "tqble decode: odd number of hex digits (3)\n"},
      {"$TQBLE decode queryHistoryErrorLogListWithError '68 34 00 00 00 00 00 00 00 00 02 00 00 00 00 01 00 00 00'",
       1, "",  // the count says two entries
       "tqble decode: the answer is too short for queryHistoryErrorLogListWithError: "
       "range {16, 8} out of bounds; length 16\n"},
      {"$TQBLE frame volume 35", 0, "68 B2 00 00 01 00 00 EE 35  setVolumeWithVolumeSize 0xB2\n", ""},
      {"$TQBLE decode stop 68b600000100000001", 0, "~\"answer\": {\n    \"resultType\": 0\n  },", ""},
      {"$TQBLE --version", 0, "tqble 1.0.0\n", ""},
      {"$TQBLE --help", 0, "~       tqble watch POST [--every S]", ""},
      {"$TQBLE help run", 0, "~    diagnostics  runningDiagnosticInfoWithError\n", ""},
      {"$TQBLE help frame", 0, "~    setVolumeWithVolumeSize (volume) <volume>\n", ""},
      {"$TQBLE decode --help", 0, "~usage: tqble decode", ""},
      {"$TQBLE history --help", 0, "~start, end, duration_s", ""},
      {"$TQBLE run - launch", 2, "", "tqble run: unknown command 'launch' (see 'tqble help run')\n"},
      {"$TQBLE run - volume", 2, "", "tqble run: volume: missing <volume> (see 'tqble help run')\n"},
      {"$TQBLE run - state --backend nope 2>&1", 2, "~tqble run: unknown backend 'nope' (built in: sim", ""},
      {"$TQBLE watch", 2, "", "tqble watch: missing POST (see 'tqble help watch')\n"},
      {"$TQBLE post --state asleep", 2, "", "tqble post: unknown state 'asleep' (see 'tqble post --help')\n"},
      {"$TQBLE post --late 1", 2, "", "tqble post: bad --late '1' (want INDEX:MS) (see 'tqble post --help')\n"},
  });
  // clang-format on
}

TEST(CommandLineTool, AsksTheSimulatedPostThroughTheClient) {
  // clang-format off
  expectRuns({
      {"$TQBLE scan --seconds 0.5", 0, "TQ-AC7-0042          SIM-POST-0001         -58 dBm\n", ""},
      {"$TQBLE run TQ-AC7-0042 volume 35 --raw", 0, "{\n  \"resultType\": 0\n}\n", ""},
      {"$TQBLE run sim-post-0001 energy --table", 0, "energy_total_kwh  120.0\n", ""},
      {"$TQBLE history - --csv", 0, "start,end,duration_s,energy_kWh\n"
                             "2023-11-13T18:26:40Z,2023-11-13T20:26:40Z,7200,12.400\n"
                             "2023-11-14T08:20:00Z,2023-11-14T09:05:00Z,2700,3.150\n", ""},
      {"$TQBLE survey -", 0, "~\"errors\": [\n    {\n      \"time_utc\": \"2023-11-12T14:40:00Z\",\n      \"code\": 8,\n      \"kind\": \"over_current\"\n", ""},
  });
  // clang-format on
}

TEST(CommandLineTool, WatchesTheStateUntilInterrupted) {
  const std::string err = ::testing::TempDir() + "tqble_watch_" + std::to_string(getpid()) + ".err";
  Child watch({TQBLE_CLI_PATH, "watch", "-", "--every", "0.5"}, err);
  std::string first, second;
  ASSERT_TRUE(watch.line(first, Clock::now() + 60s) && watch.line(second, Clock::now() + 60s));
  watch.signal(SIGINT);  // once two states are out
  const int status = watch.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(slurp(err), "");
  EXPECT_NE(first.find("\"gun_state\":\"plugged_in\",\"gun_code\":1,\"fault\":null"), std::string::npos) << first;
}

json timeline(const std::string& arguments) {
  const Outcome r = run("$TQBLE capture --json " + arguments);
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
  // The automatic system-information query first, then the scenario's rows of the command
  // table, each named by its code (0xB5 twice).
  std::vector<std::string> commands, expected{"querySystemInfoWithError"};
  for (const auto& e : app) commands.push_back(e["command"]);
  for (const auto& row : kCommandRows)
    expected.push_back(std::find_if(kCommandRows, std::end(kCommandRows), [&](auto& r) { return r.code == row.code; })->name);
  EXPECT_EQ(commands, expected);
  ASSERT_EQ(post.size(), app.size());
  for (std::size_t i = 0; i < app.size(); ++i) {
    const json& e = app[i];
    EXPECT_EQ(e["warnings"], json::array()) << i;
    ASSERT_TRUE(e["answer"].is_object()) << i;
    // Both ends of the link saw the same request and the same answer.
    EXPECT_EQ(e["request"]["bytes"], post[i]["request"]["bytes"]) << i;
    EXPECT_EQ(e["answer"]["bytes"], post[i]["answer"]["bytes"]) << i;
  }
  EXPECT_EQ(app[0]["answer"]["latency"], 1.108889);  // from the request to the last of four pieces
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
  EXPECT_EQ(t["exchanges"][1]["warnings"], json({"an answer with no request: the manager ignores it"}));

  // Given handles fill the link without discovery: the other device's look-alike frames
  // are then answers nobody asked for.
  const json given = timeline("mixed-devices.btsnoop --write-handle 0x21 --notify-handle 35");
  EXPECT_EQ(given["exchanges"].size(), 4u);
  EXPECT_EQ(given["notes"], json::array());
}

TEST(Capture, RefusesBadFilesWithTheRecordAndOffsetAndReadsStandardInput) {
  expectRuns({
      {"$TQBLE capture truncated.btsnoop", 1, "",
       "tqble capture: record 200 at offset 13653: truncated: the record holds 136 bytes, the file has 3 left\n"},
      {"$TQBLE capture corrupted-record.btsnoop", 1, "",
       "tqble capture: record 100 at offset 6937: corrupted: 16777215 bytes included of 11\n"},
      {"head -c 30 radio-commands.btsnoop | $TQBLE capture -", 1, "",
       "tqble capture: record 1 at offset 16: truncated: 14 bytes left of a 24-byte record header\n"},
      {"$TQBLE capture README.md", 1, "",
       "tqble capture: not a btsnoop file: it does not begin with the 16-byte btsnoop header\n"},
  });
  EXPECT_EQ(json::parse(run("cat wrong-checksum.btsnoop | $TQBLE capture - --json").out),
            timeline("wrong-checksum.btsnoop"));
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
