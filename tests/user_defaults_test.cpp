#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/UserDefaults.h"

namespace tqble {
namespace {

namespace fs = std::filesystem;

Value text(const char* t) { return Value{std::string(t)}; }

// A fresh configuration directory per test, whose standard file is file_, watched for files
// made or renamed in its folder. The processes that share it are children forked by the
// test; the parent leaves the shared store alone until they are started, so each begins
// with its own.
class Defaults : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(dir_);
    fs::create_directories(file_.parent_path());
    ::setenv("XDG_CONFIG_HOME", dir_.c_str(), 1);
    ::inotify_add_watch(changes_, file_.parent_path().c_str(), IN_CREATE | IN_MOVED_TO);
  }
  void TearDown() override {
    UserDefaults::standardUserDefaults().synchronize();  // nothing left to save at exit
    fs::remove_all(dir_);
  }

  // A child process that runs `role` and exits normally with what it returns.
  template <typename Role>
  static pid_t spawn(Role role) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) std::exit(role());
    return pid;
  }
  static int exitCode(pid_t pid) {
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Waits until a file is made or renamed in file_'s folder (at most 10 s); false if none was.
  bool folderChanged() const {
    pollfd changed{changes_, POLLIN, 0};
    char events[4096];
    return ::poll(&changed, 1, 10'000) == 1 && ::read(changes_, events, sizeof events) > 0;
  }
  bool temporaryShows() const {
    return std::any_of(fs::directory_iterator(file_.parent_path()), {}, [](const auto& entry) {
      return entry.path().filename().string().find(".tmp.") != std::string::npos;
    });
  }

  const fs::path dir_ = fs::temp_directory_path() /
                        ("tqble-defaults-" + std::to_string(::getpid()) + "-" +
                         testing::UnitTest::GetInstance()->current_test_info()->name());
  const fs::path file_ = dir_ / "tqble" / "tqble_tests.json";
  const int changes_ = ::inotify_init1(IN_CLOEXEC);
};

TEST_F(Defaults, EveryKindOfValueSurvivesARestartInTheApplicationsOwnFile) {
  UserDefaults::setApplicationName("Charging Helper");
  EXPECT_EQ(UserDefaults::standardPath(), dir_ / "tqble" / "Charging Helper.json");
  UserDefaults::setApplicationName(std::nullopt);
  const std::vector<std::pair<std::string, Value>> values = {
      {"flag", true}, {"big", std::int64_t{INT64_MIN}}, {"ratio", 2.0}, {"name", text("充电桩 1")},
      {"blob", Bytes{0x00, 0xFF, 0x10}}, {"list", std::vector<std::string>{"a", "", "b"}},
      {"gone", std::monostate{}}};  // storing the null object removes the key
  const fs::path file = dir_ / "nested" / "defaults.json";  // its folder made on saving
  UserDefaults writer(file);
  writer.setObject(std::int64_t{1}, "gone");
  for (const auto& [key, value] : values) writer.setObject(value, key);
  ASSERT_TRUE(writer.synchronize());
  UserDefaults reader(file);  // a later process reading the same file
  for (const auto& [key, value] : values) EXPECT_EQ(reader.objectForKey(key), value) << key;
}

TEST_F(Defaults, ADamagedFileIsMovedAsideReportedAndNeverOverwritten) {
  // Broken JSON, JSON that is not a dictionary, and a value of no known kind.
  const std::string damaged[] = {"{\"k\": \"v\", ", "[1, 2]", "{\"k\": {\"unknown\": 1}}"};
  const std::string asides[] = {".damaged", ".damaged.1", ".damaged.2"};
  for (std::size_t i = 0; i < 3; ++i) {
    std::ofstream(file_) << damaged[i];
    test::LogCapture log;
    EXPECT_EQ(UserDefaults(file_).objectForKey("k"), Value{}) << damaged[i];
    EXPECT_FALSE(fs::exists(file_));
    EXPECT_TRUE(log.lines.size() == 1 && log.lines[0].find(file_.string() + asides[i]) != std::string::npos);
    std::ifstream aside(file_.string() + asides[i]);  // each aside keeps its own text
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(aside), {}), damaged[i]);
  }
}

TEST_F(Defaults, SavedValuesAreWrittenAtOnceAndEmptyMeansFirst) {
  ZGeneralTool::userDefaultSaveValue(text("13812345678"), "phone");
  EXPECT_EQ(UserDefaults(file_).objectForKey("phone"), text("13812345678"));
  EXPECT_TRUE(ZGeneralTool::isFirstWith("guide") && ZConverTool::isFirstWith("guide"));
  ZConverTool::savePageFlag("guide");  // both tools share the flag
  EXPECT_FALSE(ZGeneralTool::isFirstWith("guide") || ZConverTool::isFirstWith("guide"));
  EXPECT_EQ(ZGeneralTool::userDefaultObjiectForKey("guide"), text("guide"));
  const std::pair<Value, bool> cases[] = {{text(""), true},  {Bytes{}, true},  {text("x"), false},
                                          {Bytes{0}, false}, {false, false},
                                          {std::vector<std::string>{}, false}};
  for (const auto& [value, first] : cases) {
    UserDefaults::standardUserDefaults().setObject(value, "k");
    EXPECT_EQ(ZGeneralTool::isFirstWith("k"), first) << value.index();
  }
  ZGeneralTool::savePageFlag("");  // the empty key stores an empty text: still "first"
  EXPECT_TRUE(ZGeneralTool::isFirstWith(""));
}

// Two writers at once, each synchronizing every tenth key and leaving the last ones to be
// saved: "a" never exits (its timer saves them), "b" exits after forking a child while its
// timer ran; the child, which has no timer of its parent's, saves at its own exit.
TEST_F(Defaults, ProcessesSharingTheFileLoseNoValueAndKeepEachOthersRemovals) {
  constexpr int kKeys = 150;
  const auto write = [](const std::string& name) {
    auto& defaults = UserDefaults::standardUserDefaults();
    for (int i = 0; i < kKeys; ++i) {
      defaults.setObject(std::int64_t{i}, name + std::to_string(i));
      if (i % 10 == 0) defaults.synchronize();
    }
  };
  UserDefaults(file_).setObject(std::int64_t{1}, "kept");
  UserDefaults(file_).setObject(std::int64_t{1}, "dropped");
  const pid_t a = spawn([&] {
    UserDefaults::standardUserDefaults().removeObjectForKey("dropped");
    write("a");
    return ::pause();
  });
  const pid_t b = spawn([&] {
    write("b");
    return exitCode(spawn([] {
      ::alarm(10);  // ends it if it hangs at exit
      ZGeneralTool::savePageFlag("forked");
      return 0;
    }));
  });
  EXPECT_EQ(exitCode(b), 0);
  while (UserDefaults(file_).objectForKey("a149") == Value{} && folderChanged()) {
  }
  ::kill(a, SIGKILL);
  exitCode(a);
  UserDefaults after(file_);
  for (const char* name : {"a", "b"})
    for (int i = 0; i < kKeys; ++i)
      ASSERT_EQ(after.objectForKey(name + std::to_string(i)), Value{std::int64_t{i}}) << name << i;
  EXPECT_EQ(after.objectForKey("kept"), Value{std::int64_t{1}});
  EXPECT_EQ(after.objectForKey("dropped"), Value{});
  EXPECT_EQ(after.objectForKey("forked"), text("forked"));
}

// Mode 000 (or another user's file): no damage. It stays where it is, untouched, the
// process works from memory, and once the file can be read again its values are back.
TEST_F(Defaults, AFileThatCannotBeReadIsLeftAsItIsWhileValuesLiveInMemory) {
  std::ofstream(file_) << R"({"k": "old"})";
  ::chmod(file_.c_str(), 0);
  ::chmod(file_.parent_path().c_str(), 0777);  // nothing but the file itself stands in the way
  const pid_t writer = spawn([&] {
    // Root reads any file: the writer runs as nobody.
    if (::geteuid() == 0 && (::setgroups(0, nullptr) || ::setresgid(65534, 65534, 65534) ||
                             ::setresuid(65534, 65534, 65534)))
      return 3;
    test::LogCapture log;
    ZGeneralTool::userDefaultSaveValue(text("new"), "k");  // its save fails
    const bool reported = std::any_of(log.lines.begin(), log.lines.end(), [&](const auto& line) {
      return line.find(file_.string()) != std::string::npos;
    });
    return reported && ZGeneralTool::userDefaultObjiectForKey("k") == text("new") ? 0 : 4;
  });
  EXPECT_EQ(exitCode(writer), 0);
  EXPECT_EQ(fs::status(file_).permissions(), fs::perms::none);
  EXPECT_FALSE(fs::exists(file_.string() + ".damaged"));
  ::chmod(file_.c_str(), 0600);
  EXPECT_EQ(UserDefaults(file_).objectForKey("k"), text("old"));
}

// The writer is stopped while its temporary file shows, then killed: the next process to
// open the file finds it whole and the temporary file gone.
TEST_F(Defaults, AWriterKilledMidWriteLeavesAGoodFileAndNoTemporaryOne) {
  constexpr std::size_t kSize = 1 << 18;
  UserDefaults(file_).setObject(std::string(kSize, 'z'), "big");
  const pid_t writer = spawn([]() -> int {
    for (char c = 'a';; c = c == 'a' ? 'b' : 'a')
      ZGeneralTool::userDefaultSaveValue(std::string(kSize, c), "big");
  });
  bool caught = false;
  for (int i = 0; i < 10'000 && !caught && folderChanged(); ++i) {
    if (!temporaryShows()) continue;
    ::kill(writer, SIGSTOP);
    ::waitpid(writer, nullptr, WUNTRACED);
    caught = temporaryShows();
    if (!caught) ::kill(writer, SIGCONT);  // renamed before it stopped: go on
  }
  ::kill(writer, SIGKILL);
  exitCode(writer);
  ASSERT_TRUE(caught) << "no temporary file showed";
  const Value big = UserDefaults(file_).objectForKey("big");
  const auto* text = std::get_if<std::string>(&big);
  EXPECT_TRUE(text && *text == std::string(kSize, text->front()));
  EXPECT_FALSE(temporaryShows());
}

}  // namespace
}  // namespace tqble
