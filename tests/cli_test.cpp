#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

struct Outcome {
  int status = -1;
  std::string out, err;
};

std::string slurp(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Runs the built tool with `arguments` (shell words) and collects both streams; CTest runs
// tests side by side, so each process gets files of its own.
Outcome tqble(const std::string& arguments) {
  const std::string path = ::testing::TempDir() + "tqble_cli_" + std::to_string(getpid());
  const std::string command = std::string(TQBLE_CLI_PATH) + " " + arguments;
  const int wait = std::system((command + " >" + path + ".out 2>" + path + ".err").c_str());
  return {WIFEXITED(wait) ? WEXITSTATUS(wait) : -1, slurp(path + ".out"), slurp(path + ".err")};
}

TEST(CommandLineTool, PrintsTheExactFrameOrTheAnswerAsJsonAndLogsOnlyWhenAsked) {
  const std::string info = "decode querySystemInfoWithError 68b1" + std::string(54, '0') + "66" +
                           std::string(72, '0') + "08";
  // arguments, the whole output or (after '~') a part of it, the log
  // clang-format off
  const std::tuple<std::string, std::string, const char*> cases[] = {
      {"frame queryChargingDataWithError", "68 B5 00 00 01 00 00 DC 00\n", ""},
      {"frame setVolumeWithVolumeSize 35", "68 B2 00 00 01 00 00 EE 35\n", ""},
      {"frame setVolumeWithVolumeSize 5", "68 B2 00 00 00 00 00 DA\n", ""},
      {"frame orderChargerWithStartHour 22 30 6 0", "68 B3 00 00 05 00 00 D1 01 16 1E 06 00\n", ""},
      {"frame queryHistoryErrorLogListWithError", "68 34 00 00 03 00 00 5E 01 00 00\n", ""},
      {"frame synchroTimeWithError --time 1700000000", "68 B0 00 00 04 00 00 1B 00 F1 53 65\n", ""},
      {"frame queryChargerStateWithError --status 3 --rand 16", "68 B5 03 00 01 00 00 CF 00\n", ""},
      {"frame querySystemInfoWithError --status 3 --rand 16", "68 B1 00 00 01 00 00 D8 00\n", ""},
      {"decode queryChargingDataWithError '68 b5 00 00 12 00 00 00 06 01 02 03 04 e8 03 5c 08 00 "
       "00 "
       "10 00 3c 00 00 00 00'",  // live data read as charger state
       "{\n  \"serialNumber\": \"1234\",\n  \"elecQuantity\": 1000,\n  \"voltage\": 2140,\n"
       "  \"electric\": 16,\n  \"duration\": 60,\n  \"gunStatus\": \"正在充电中\",\n"
       "  \"failureReason\": null\n}\n",
       ""},
      {"decode stopChargeWithError 68b600000100000001", "{\n  \"resultType\": 0\n}\n", ""},
      {"decode queryHistoryErrorLogListWithError '68 34 00 00 00 00 00 00 00 00 00'", "[]\n", ""},
      {info, "~\"title\": \"厂商\",\n    \"content\": \"Velmora\"", ""},
      {info + " --log", "~\"content\": \"充电结束未拔枪\"",
       "桩号:  00000000000000000000\n获取的音量大小: 00\n充电模式: 00\n"},
      {"decode runningDiagnosticInfoWithError " + std::string(76, '0') + "03" +
           std::string(54, '0'),
       "~\"chargeState\": \"充电中\"", ""},
  };
  // clang-format on
  for (const auto& [arguments, out, log] : cases) {
    const Outcome run = tqble(arguments);
    EXPECT_EQ(run.status, 0) << arguments << ": " << run.err;
    if (out[0] == '~') {
      EXPECT_NE(run.out.find(out.substr(1)), std::string::npos) << arguments << "\n" << run.out;
    } else {
      EXPECT_EQ(run.out, out) << arguments;
    }
    EXPECT_EQ(run.err, log) << arguments;
  }
}

TEST(CommandLineTool, RejectsBadInputAndRangeErrorsWithOneLineAndANonZeroStatus) {
  // clang-format off
  const std::tuple<const char*, int, const char*> cases[] = {
      {"frame launchRocket", 2, "tqble frame: unknown command 'launchRocket'\n"},
      {"frame setVolumeWithVolumeSize", 2,
       "tqble frame: setVolumeWithVolumeSize: missing <volume>\n"},
      {"frame setVolumeWithVolumeSize 3x", 2,
       "tqble frame: volume must be an integer from -9223372036854775808 to "
       "9223372036854775807, not '3x'\n"},
      {"frame stopChargeWithError 1", 2,
       "tqble frame: stopChargeWithError: unexpected argument '1'\n"},
      {"frame stopChargeWithError --rand 256", 2,
       "tqble frame: --rand must be an integer from 0 to 255, not '256'\n"},
      {"frame stopChargeWithError --status", 2, "tqble frame: --status needs a value\n"},
      {"decode queryCumulationElecQuantityWithError '68 b8 00 00 05 00 00 00 10 27'", 1,
       "tqble decode: the answer is too short for queryCumulationElecQuantityWithError: "
       "range {16, 8} out of bounds; length 20\n"},
      {"decode queryHistoryErrorLogListWithError '68 34 00 00 00 00 00 00 00 00 02 00 00 00 00 01 "
       "00 00 00'",
       1,  // the count says two entries
       "tqble decode: the answer is too short for queryHistoryErrorLogListWithError: "
       "range {16, 8} out of bounds; length 16\n"},
      {"decode queryChargerStateWithError 6g", 2, "tqble decode: not a hex digit: 'g'\n"},
      {"decode queryChargerStateWithError 'ab c'", 2,
       "tqble decode: odd number of hex digits (3)\n"},
      {"decode chargeFaster 00", 2, "tqble decode: unknown command 'chargeFaster'\n"},
  };
  // clang-format on
  for (const auto& [arguments, status, message] : cases) {
    const Outcome run = tqble(arguments);
    EXPECT_EQ(run.status, status) << arguments;
    EXPECT_EQ(run.out, "") << arguments;
    EXPECT_EQ(run.err, message) << arguments;
  }
}

}  // namespace
