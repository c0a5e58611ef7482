#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/UserDefaults.h"

extern char** environ;

namespace tqble {
namespace {

namespace fs = std::filesystem;

// A fresh directory per test, also standing in for the configuration directory.
class DefaultsFile : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(dir_);
    fs::create_directories(file_.parent_path());
    ::setenv("XDG_CONFIG_HOME", dir_.c_str(), 1);
  }
  void TearDown() override {
    UserDefaults::standardUserDefaults().synchronize();  // nothing left to save at exit
    fs::remove_all(dir_);
  }

  const fs::path dir_ =
      fs::temp_directory_path() / ("tqble-defaults-" + std::to_string(::getpid()) + "-" +
                                   testing::UnitTest::GetInstance()->current_test_info()->name());
  const fs::path file_ = dir_ / "nested" / "defaults.json";
};

TEST_F(DefaultsFile, EveryKindOfValueSurvivesARestartInTheApplicationsOwnFile) {
  EXPECT_EQ(UserDefaults::standardPath(), dir_ / "tqble" / "tqble_tests.json");
  UserDefaults::setApplicationName("Charging Helper");
  EXPECT_EQ(UserDefaults::standardPath(), dir_ / "tqble" / "Charging Helper.json");
  UserDefaults::setApplicationName(std::nullopt);
  // clang-format off
  const std::vector<std::pair<std::string, Value>> values = {
      {"flag", true}, {"big", std::int64_t{INT64_MIN}}, {"ratio", 2.0}, {"name", std::string("充电桩 1")},
      {"blob", Bytes{0x00, 0xFF, 0x10}}, {"list", std::vector<std::string>{"a", "", "b"}},
      {"gone", std::monostate{}},  // storing the null object removes the key
  };
  // clang-format on
  UserDefaults writer(file_);
  writer.setObject(std::int64_t{1}, "gone");
  for (const auto& [key, value] : values) writer.setObject(value, key);
  ASSERT_TRUE(writer.synchronize());
  UserDefaults reader(file_);  // a later process reading the same file
  for (const auto& [key, value] : values) EXPECT_EQ(reader.objectForKey(key), value) << key;
}

TEST_F(DefaultsFile, ADamagedFileIsMovedAsideReportedAndNeverOverwritten) {
  // Broken JSON, JSON that is not a dictionary, and a value of no known kind.
  const std::string damaged[] = {"{\"k\": \"v\", ", "[1, 2]", "{\"k\": {\"unknown\": 1}}"};
  const std::string asides[] = {".damaged", ".damaged.1", ".damaged.2"};
  for (std::size_t i = 0; i < 3; ++i) {
    std::ofstream(file_) << damaged[i];
    test::LogCapture log;
    EXPECT_EQ(UserDefaults(file_).objectForKey("k"), Value{}) << damaged[i];
    EXPECT_FALSE(fs::exists(file_));
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_NE(log.lines[0].find("; moved to " + file_.string() + asides[i]), std::string::npos);
  }
  for (std::size_t i = 0; i < 3; ++i)  // each aside keeps its own text
    EXPECT_EQ(fs::file_size(file_.string() + asides[i]), damaged[i].size());
}

TEST_F(DefaultsFile, SavedValuesAreWrittenAtOnceAndEmptyMeansFirst) {
  UserDefaults::setStandardUserDefaultsPath(file_);
  ZGeneralTool::userDefaultSaveValue(std::string("13812345678"), "phone");
  EXPECT_EQ(UserDefaults(file_).objectForKey("phone"), Value{std::string("13812345678")});
  EXPECT_TRUE(ZGeneralTool::isFirstWith("guide") && ZConverTool::isFirstWith("guide"));
  ZConverTool::savePageFlag("guide");  // both tools share the flag
  EXPECT_FALSE(ZGeneralTool::isFirstWith("guide") || ZConverTool::isFirstWith("guide"));
  EXPECT_EQ(ZGeneralTool::userDefaultObjiectForKey("guide"), Value{std::string("guide")});
  // clang-format off
  const std::pair<Value, bool> cases[] = {
      {std::string(), true}, {Bytes{}, true}, {std::string("x"), false}, {Bytes{0}, false},
      {false, false}, {std::vector<std::string>{}, false}};
  // clang-format on
  for (const auto& [value, first] : cases) {
    UserDefaults::standardUserDefaults().setObject(value, "k");
    EXPECT_EQ(ZGeneralTool::isFirstWith("k"), first) << value.index();
  }
  ZGeneralTool::savePageFlag("");  // the empty key stores an empty text: still "first"
  EXPECT_TRUE(ZGeneralTool::isFirstWith(""));
}

// Each test runs this binary again as the processes that share the file: the same test,
// told its role by TQBLE_DEFAULTS_ROLE, with the program name "tqble_tests" for all.
class DefaultsProcesses : public testing::Test {
 protected:
  void SetUp() override {
    if (role_) return;
    fs::remove_all(dir_);
    fs::create_directories(dir_ / "tqble");
    ::setenv("XDG_CONFIG_HOME", dir_.c_str(), 1);
  }
  void TearDown() override {
    if (!role_) fs::remove_all(dir_);
  }

  pid_t spawn(const std::string& role, std::vector<std::string> argv = {}) {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    argv.push_back(fs::read_symlink("/proc/self/exe").string());
    argv.push_back(std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name());
    std::vector<char*> args;
    for (auto& arg : argv) args.push_back(arg.data());
    args.push_back(nullptr);
    ::setenv("TQBLE_DEFAULTS_ROLE", role.c_str(), 1);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::unsetenv("TQBLE_DEFAULTS_ROLE");
    return pid;
  }
  static int exitCode(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::vector<std::string> temporaries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(file_.parent_path())) {
      if (entry.path().string().find(".tmp.") != std::string::npos) names.push_back(entry.path());
    }
    return names;
  }

  const char* role_ = std::getenv("TQBLE_DEFAULTS_ROLE");
  const fs::path dir_ =
      fs::temp_directory_path() / ("tqble-processes-" + std::to_string(::getpid()));
  const fs::path file_ = dir_ / "tqble" / "tqble_tests.json";
};

TEST_F(DefaultsProcesses, ValuesSetWithoutSynchronizeReachTheFileSoonAndAtExit) {
  if (role_) {
    ZGeneralTool::userDefaultSaveValue(std::string("FFF3"), "lastPost");  // synchronizes
    ZGeneralTool::savePageFlag(role_);
    if (role_ == std::string("stays")) std::this_thread::sleep_for(std::chrono::minutes(1));
    if (role_ == std::string("forks")) {  // a child forked once the saver runs exits too
      const pid_t child = ::fork();
      if (child == 0) {
        ZGeneralTool::savePageFlag("forked");
        std::exit(0);
      }
      for (int i = 0; i < 500 && ::waitpid(child, nullptr, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      if (::kill(child, SIGKILL) == 0 && ::waitpid(child, nullptr, 0) == child) std::exit(3);
    }
    return;
  }
  for (const char* role : {"exits", "forks"}) ASSERT_EQ(exitCode(spawn(role)), 0) << role;
  EXPECT_EQ(ZGeneralTool::userDefaultObjiectForKey("lastPost"), Value{std::string("FFF3")});
  for (const char* flag : {"exits", "forks", "forked"})
    EXPECT_FALSE(ZGeneralTool::isFirstWith(flag)) << flag;
  // A process that never exits normally still saves within moments.
  const pid_t stays = spawn("stays");
  bool saved = false;
  for (int i = 0; i < 100 && !saved; ++i) {
    std::this_thread::sleep_for(UserDefaults::kSaveDelay / 5);
    saved = UserDefaults(file_).objectForKey("stays") == Value{std::string("stays")};
  }
  ::kill(stays, SIGKILL);
  exitCode(stays);
  EXPECT_TRUE(saved);
}

TEST_F(DefaultsProcesses, TwoWritersAtOnceLoseNoValueAndKeepEachOthersRemovals) {
  constexpr int kKeys = 150;
  if (role_) {
    auto& defaults = UserDefaults::standardUserDefaults();
    if (role_ == std::string("a")) defaults.removeObjectForKey("dropped");
    for (int i = 0; i < kKeys; ++i) {
      defaults.setObject(std::int64_t{i}, role_ + std::to_string(i));
      if (i % 10 == 0) defaults.synchronize();
    }
    return;
  }
  {
    UserDefaults before(file_);
    before.setObject(std::int64_t{1}, "kept");
    before.setObject(std::int64_t{1}, "dropped");
  }
  const pid_t a = spawn("a"), b = spawn("b");
  ASSERT_EQ(exitCode(a) + exitCode(b), 0);
  UserDefaults after(file_);
  for (const char* writer : {"a", "b"}) {
    for (int i = 0; i < kKeys; ++i)
      ASSERT_EQ(after.objectForKey(writer + std::to_string(i)), Value{std::int64_t{i}})
          << writer << i;
  }
  EXPECT_EQ(after.objectForKey("kept"), Value{std::int64_t{1}});
  EXPECT_EQ(after.objectForKey("dropped"), Value{});
}

// Mode 000 (or another user's file): no damage. It stays where it is, untouched, the
// process works from memory, and once the file can be read again its values are back.
TEST_F(DefaultsProcesses, AFileThatCannotBeReadIsLeftAsItIsWhileValuesLiveInMemory) {
  if (role_) {
    test::LogCapture log;
    ZGeneralTool::userDefaultSaveValue(std::string("new"), "k");  // its save fails
    const std::string file = UserDefaults::standardPath().string();
    const bool reported = std::any_of(log.lines.begin(), log.lines.end(), [&](const auto& line) {
      return line.find(file) != std::string::npos;
    });
    std::exit(!reported ? 4 : ZGeneralTool::userDefaultObjiectForKey("k") != Value{std::string("new")} ? 5 : 0);
  }
  std::ofstream(file_) << R"({"k": "old"})";
  ::chmod(file_.c_str(), 0);
  std::vector<std::string> asUser;  // root reads any file: run the writer as nobody
  if (::geteuid() == 0) {
    asUser = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    const std::string probe = asUser[0] + " " + asUser[1] + " " + asUser[2] + " " + asUser[3] +
                              " test -x '" + fs::read_symlink("/proc/self/exe").string() + "'";
    if (std::system(probe.c_str()) != 0) GTEST_SKIP() << "nobody cannot run this binary";
  }
  ::chmod(file_.parent_path().c_str(), 0777);  // nothing but the file itself stands in the way
  EXPECT_EQ(exitCode(spawn("writer", asUser)), 0);
  EXPECT_EQ(fs::status(file_).permissions(), fs::perms::none);
  EXPECT_FALSE(fs::exists(file_.string() + ".damaged"));
  ::chmod(file_.c_str(), 0600);
  EXPECT_EQ(UserDefaults(file_).objectForKey("k"), Value{std::string("old")});
}

TEST_F(DefaultsProcesses, AWriterKilledMidWriteLeavesAGoodFileAndNoTemporaryOne) {
  constexpr std::size_t kSize = 1 << 18;
  if (role_) {
    auto& defaults = UserDefaults::standardUserDefaults();
    for (char c = 'a';; c = c == 'z' ? 'a' : c + 1) {
      defaults.setObject(std::string(kSize, c), "big");
      defaults.synchronize();
    }
  }
  UserDefaults(file_).setObject(std::string(kSize, 'z'), "big");
  int caught = 0;  // kills that left a temporary file behind
  for (int round = 0; round < 8 && caught < 2; ++round) {
    const pid_t writer = spawn("writer");
    // Kill the writer as soon as its temporary file shows, before it is renamed.
    for (int i = 0; i < 100'000 && temporaries().empty(); ++i)
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    ::kill(writer, SIGKILL);
    exitCode(writer);
    caught += !temporaries().empty();
    const Value big = UserDefaults(file_).objectForKey("big");  // the next process to open it
    const auto* text = std::get_if<std::string>(&big);
    ASSERT_TRUE(text && text->size() == kSize &&
                text->find_first_not_of(text->front()) == std::string::npos);
    ASSERT_EQ(temporaries(), std::vector<std::string>{});
  }
  EXPECT_GT(caught, 0) << "no kill landed during a write";
}

}  // namespace
}  // namespace tqble
