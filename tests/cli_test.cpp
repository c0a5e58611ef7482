#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs the built tool with `arguments` (shell words) and collects both streams.
Outcome tqble(const std::string& arguments) {
  // CTest runs tests side by side: one stderr file per process.
  const std::string errPath = ::testing::TempDir() + "tqble_cli_stderr_" + std::to_string(getpid());
  const std::string command = std::string(TQBLE_CLI_PATH) + " " + arguments + " 2>" + errPath;
  Outcome run;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    run.out.append(buffer, n);
  const int wait = pclose(pipe);
  run.status = WIFEXITED(wait) ? WEXITSTATUS(wait) : -1;
  std::ostringstream err;
  err << std::ifstream(errPath).rdbuf();
  run.err = err.str();
  return run;
}

TEST(FrameCommand, PrintsTheFrameEachCommandWrites) {
  const std::pair<const char*, const char*> cases[] = {
      {"queryChargerStateWithError", "68 B5 00 00 01 00 00 DC 00"},
      {"queryChargingDataWithError", "68 B5 00 00 01 00 00 DC 00"},
      {"setVolumeWithVolumeSize 35", "68 B2 00 00 01 00 00 EE 35"},
      {"setVolumeWithVolumeSize 5", "68 B2 00 00 00 00 00 DA"},
      {"orderChargerWithStartHour 22 30 6 0", "68 B3 00 00 05 00 00 D1 01 16 1E 06 00"},
      {"queryHistoryErrorLogListWithError", "68 34 00 00 03 00 00 5E 01 00 00"},
      {"synchroTimeWithError --time 1700000000", "68 B0 00 00 04 00 00 1B 00 F1 53 65"},
      {"queryChargerStateWithError --status 3 --rand 16", "68 B5 03 00 01 00 00 CF 00"},
      {"querySystemInfoWithError --status 3 --rand 16", "68 B1 00 00 01 00 00 D8 00"},
  };
  for (const auto& [arguments, frame] : cases) {
    const Outcome run = tqble(std::string("frame ") + arguments);
    EXPECT_EQ(run.status, 0) << arguments << ": " << run.err;
    EXPECT_EQ(run.out, std::string(frame) + "\n") << arguments;
  }
}

TEST(FrameCommand, RejectsBadCommandLinesWithOneLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"frame launchRocket", "tqble frame: unknown command 'launchRocket'\n"},
      {"frame setVolumeWithVolumeSize", "tqble frame: setVolumeWithVolumeSize: missing <volume>\n"},
      {"frame setVolumeWithVolumeSize 3x",
       "tqble frame: volume must be an integer from -9223372036854775808 to 9223372036854775807, "
       "not '3x'\n"},
      {"frame stopChargeWithError 1",
       "tqble frame: stopChargeWithError: unexpected argument '1'\n"},
      {"frame stopChargeWithError --rand 256",
       "tqble frame: --rand must be an integer from 0 to 255, not '256'\n"},
      {"frame stopChargeWithError --status", "tqble frame: --status needs a value\n"},
  };
  for (const auto& [arguments, message] : cases) {
    const Outcome run = tqble(arguments);
    EXPECT_EQ(run.status, 2) << arguments;
    EXPECT_EQ(run.out, "") << arguments;
    EXPECT_EQ(run.err, message) << arguments;
  }
}

TEST(DecodeCommand, ReadsLiveDataAnswersAsChargerStateLikeTheManager) {
  const Outcome run = tqble(
      "decode queryChargingDataWithError '68 b5 00 00 12 00 00 00 06 01 02 03 04 e8 03 5c 08 00 00 "
      "10 00 3c 00 00 00 00'");
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "{\n  \"serialNumber\": \"1234\",\n  \"elecQuantity\": 1000,\n  \"voltage\": 2140,\n"
            "  \"electric\": 16,\n  \"duration\": 60,\n  \"gunStatus\": \"正在充电中\",\n"
            "  \"failureReason\": null\n}\n");
  EXPECT_EQ(run.err, "") << "decoder log lines stay quiet without --log";
}

TEST(DecodeCommand, ReportsStopAsSuccessWhateverTheAnswerSays) {
  EXPECT_EQ(tqble("decode stopChargeWithError 68b600000100000001").out,
            "{\n  \"resultType\": 0\n}\n");
  EXPECT_EQ(tqble("decode startChargingWithError 68 b4 00 00 01 00 00 00 01").out,
            "{\n  \"resultType\": 1\n}\n");
  EXPECT_EQ(tqble("decode synchroTimeWithError ''").out, "{\n  \"resultType\": 1\n}\n");
}

TEST(DecodeCommand, PrintsListsAndTheTenSystemRows) {
  const Outcome history = tqble(
      "decode queryHistoryChargingListWithError '68 b7 00 00 00 00 00 00 00 00 00 01"
      " 00 00 30 39 00 64 00 00 00 00 10 0e 00 00 10 0e 00 00 00'");
  EXPECT_NE(history.out.find("\"serialNumber\": \"12345\""), std::string::npos) << history.out;
  EXPECT_NE(history.out.find("\"endTime\": \"1970-01-01 01:00:00\""), std::string::npos);
  EXPECT_EQ(
      tqble("decode queryHistoryErrorLogListWithError '68 34 00 00 00 00 00 00 00 00 00'").out,
      "[]\n");

  const Outcome info = tqble("decode querySystemInfoWithError 68b1" + std::string(54, '0') + "66" +
                             std::string(72, '0') + "08 --log");
  EXPECT_EQ(info.status, 0) << info.err;
  EXPECT_NE(info.out.find("\"title\": \"厂商\",\n    \"content\": \"Velmora\""), std::string::npos)
      << info.out;
  EXPECT_NE(info.out.find("\"content\": \"充电结束未拔枪\""), std::string::npos);
  EXPECT_EQ(info.err, "桩号:  00000000000000000000\n获取的音量大小: 00\n充电模式: 00\n");
}

TEST(DecodeCommand, PrintsTheDiagnosticsTheManagerDrops) {
  std::string frame(132, '0');
  frame.replace(76, 2, "03");
  const Outcome run = tqble("decode runningDiagnosticInfoWithError " + frame);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("\"chargeState\": \"充电中\""), std::string::npos) << run.out;
}

TEST(DecodeCommand, TurnsRangeErrorsAndBadInputIntoOneLineAndAFailure) {
  const std::tuple<const char*, int, const char*> cases[] = {
      {"decode queryCumulationElecQuantityWithError '68 b8 00 00 05 00 00 00 10 27'", 1,
       "tqble decode: the answer is too short for queryCumulationElecQuantityWithError: range {16, "
       "8} out of bounds; length 20\n"},
      {"decode queryHistoryErrorLogListWithError '68 34 00 00 00 00 00 00 00 00 02 00 00 00 00 01 "
       "00 00 00'",
       1,
       "tqble decode: the answer is too short for queryHistoryErrorLogListWithError: range {16, 8} "
       "out of bounds; length 16\n"},
      {"decode queryChargerStateWithError 6g", 2, "tqble decode: not a hex digit: 'g'\n"},
      {"decode queryChargerStateWithError 'ab c'", 2,
       "tqble decode: odd number of hex digits (3)\n"},
      {"decode queryChargerStateWithError", 2,
       "tqble decode: queryChargerStateWithError: missing <hex>\n"},
      {"decode chargeFaster 00", 2, "tqble decode: unknown command 'chargeFaster'\n"},
  };
  for (const auto& [arguments, status, message] : cases) {
    const Outcome run = tqble(arguments);
    EXPECT_EQ(run.status, status) << arguments;
    EXPECT_EQ(run.out, "") << arguments;
    EXPECT_EQ(run.err, message) << arguments;
  }
}

}  // namespace
