#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>

namespace {

std::string slurp(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Runs the built tool with `arguments` (shell words): exit status, output, error output. CTest
// runs tests side by side, so each process gets files of its own.
std::tuple<int, std::string, std::string> tqble(const std::string& arguments) {
  const std::string path = ::testing::TempDir() + "tqble_cli_" + std::to_string(getpid());
  const std::string command = std::string(TQBLE_CLI_PATH) + " " + arguments;
  const int wait = std::system((command + " >" + path + ".out 2>" + path + ".err").c_str());
  return {WIFEXITED(wait) ? WEXITSTATUS(wait) : -1, slurp(path + ".out"), slurp(path + ".err")};
}

TEST(CommandLineTool, PrintsTheExactFrameOrJsonLogsOnlyWhenAskedAndFailsWithOneLine) {
  const std::string info = "decode querySystemInfoWithError 68b1" + std::string(54, '0') + "66" +
                           std::string(72, '0') + "08";
  // arguments, exit status, the whole output or (after '~') a part of it, the log or error
  // clang-format off
  const std::tuple<std::string, int, std::string, std::string> cases[] = {
      {"frame setVolumeWithVolumeSize 35", 0, "68 B2 00 00 01 00 00 EE 35\n", ""},
      {"frame setVolumeWithVolumeSize 5", 0, "68 B2 00 00 00 00 00 DA\n", ""},
      {"frame orderChargerWithStartHour 22 30 6 0", 0, "68 B3 00 00 05 00 00 D1 01 16 1E 06 00\n", ""},
      {"frame synchroTimeWithError --time 1700000000", 0, "68 B0 00 00 04 00 00 1B 00 F1 53 65\n", ""},
      {"frame querySystemInfoWithError --status 3 --rand 16", 0, "68 B1 00 00 01 00 00 D8 00\n", ""},
      {"decode queryChargingDataWithError '68 b5 00 00 12 00 00 00 06 01 02 03 04 e8 03 5c 08 00 00 10 00 3c 00 00 00 00'",
       0,  // live data read as charger state
       "{\n  \"serialNumber\": \"1234\",\n  \"elecQuantity\": 1000,\n  \"voltage\": 2140,\n"
       "  \"electric\": 16,\n  \"duration\": 60,\n  \"gunStatus\": \"正在充电中\",\n  \"failureReason\": null\n}\n", ""},
      {"decode stopChargeWithError 68b600000100000001", 0, "{\n  \"resultType\": 0\n}\n", ""},
      {"decode queryHistoryErrorLogListWithError '68 34 00 00 00 00 00 00 00 00 00'", 0, "[]\n", ""},
      {info + " --log", 0, "~\"title\": \"厂商\",\n    \"content\": \"Velmora\"",
       "桩号:  00000000000000000000\n获取的音量大小: 00\n充电模式: 00\n"},
      {"decode runningDiagnosticInfoWithError " + std::string(76, '0') + "03" + std::string(54, '0'), 0,
       "~\"chargeState\": \"充电中\"", ""},
      {"frame launchRocket", 2, "", "tqble frame: unknown command 'launchRocket'\n"},
      {"frame stopChargeWithError --rand 256", 2, "", "tqble frame: --rand must be an integer from 0 to 255, not '256'\n"},
      {"decode queryChargerStateWithError 6g", 2, "", "tqble decode: not a hex digit at position 2\n"},
      {"decode queryHistoryErrorLogListWithError '68 34 00 00 00 00 00 00 00 00 02 00 00 00 00 01 00 00 00'",
       1, "",  // the count says two entries
       "tqble decode: the answer is too short for queryHistoryErrorLogListWithError: "
       "range {16, 8} out of bounds; length 16\n"},
      {"post --state asleep", 2, "", "tqble post: unknown state 'asleep' (see 'tqble post --help')\n"},
      {"post --late 1", 2, "", "tqble post: bad --late '1' (want INDEX:MS) (see 'tqble post --help')\n"},
  };
  // clang-format on
  for (const auto& [arguments, status, out, err] : cases) {
    const auto [runStatus, runOut, runErr] = tqble(arguments);
    EXPECT_EQ(std::pair(runStatus, runErr), std::pair(status, err)) << arguments;
    EXPECT_TRUE(out[0] == '~' ? runOut.find(out.substr(1)) != std::string::npos : runOut == out)
        << arguments << "\n"
        << runOut;
  }
}

}  // namespace
