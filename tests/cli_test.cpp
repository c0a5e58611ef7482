#include <gtest/gtest.h>

#include <tuple>

#include "support/Processes.h"

namespace tqble::test {
namespace {

using namespace std::chrono_literals;

// Runs a table of (shell command, exit status, the whole output or after '~' a part of it, the
// whole error output).
using Cases = std::vector<std::tuple<std::string, int, std::string, std::string>>;
void expectRuns(const Cases& cases) {
  for (const auto& [command, status, out, err] : cases) {
    const Outcome run = shell("TQBLE=" TQBLE_CLI_PATH "; " + command);
    EXPECT_EQ(std::pair(run.status, run.err), std::pair(status, err)) << command;
    EXPECT_TRUE(out[0] == '~' ? run.out.find(out.substr(1)) != std::string::npos : run.out == out)
        << command << "\n" << run.out;
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

}  // namespace
}  // namespace tqble::test
