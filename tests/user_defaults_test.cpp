#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/UserDefaults.h"

namespace tqble {
namespace {

namespace fs = std::filesystem;

// A fresh directory per test, removed afterwards.
class DefaultsFile : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("tqble-defaults-" + std::to_string(::getpid()) + "-" +
            testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    file_ = dir_ / "nested" / "defaults.json";
    // Keeps the standard store away from the real configuration directory.
    ::setenv("XDG_CONFIG_HOME", dir_.c_str(), 1);
  }
  void TearDown() override { fs::remove_all(dir_); }
  void write(const std::string& text) {
    fs::create_directories(file_.parent_path());
    std::ofstream(file_) << text;
  }
  static std::string read(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  fs::path dir_;
  fs::path file_;
};

TEST_F(DefaultsFile, EveryKindOfValueSurvivesARestart) {
  const std::vector<std::pair<std::string, Value>> values = {
      {"flag", true},
      {"count", std::int64_t{-42}},
      {"big", std::int64_t{INT64_MAX}},
      {"ratio", 2.0},
      {"name", std::string("充电桩 1")},
      {"empty", std::string()},
      {"blob", Bytes{0x00, 0xFF, 0x10}},
      {"list", std::vector<std::string>{"a", "", "b"}},
  };
  {
    UserDefaults writer(file_);
    for (const auto& [key, value] : values) writer.setObject(value, key);
    ASSERT_TRUE(writer.synchronize());
  }
  UserDefaults reader(file_);  // a later process reading the same file
  for (const auto& [key, value] : values) EXPECT_EQ(reader.objectForKey(key), value) << key;
  EXPECT_EQ(reader.objectForKey("missing"), Value{});
}

TEST_F(DefaultsFile, NothingReachesTheDiskBeforeSynchronize) {
  UserDefaults writer(file_);
  writer.setObject(std::string("x"), "k");
  EXPECT_FALSE(fs::exists(file_));
  EXPECT_EQ(UserDefaults(file_).objectForKey("k"), Value{});
  ASSERT_TRUE(writer.synchronize());
  EXPECT_EQ(UserDefaults(file_).objectForKey("k"), Value{std::string("x")});
}

TEST_F(DefaultsFile, StoringTheNullObjectRemovesTheKey) {
  UserDefaults writer(file_);
  writer.setObject(std::int64_t{1}, "k");
  writer.setObject(std::monostate{}, "k");
  writer.synchronize();
  EXPECT_EQ(read(file_).find("\"k\""), std::string::npos);
}

TEST_F(DefaultsFile, SynchronizeLeavesNoTemporaryFileBehind) {
  UserDefaults writer(file_);
  writer.setObject(std::string("v"), "k");
  ASSERT_TRUE(writer.synchronize());
  ASSERT_TRUE(writer.synchronize());
  std::vector<fs::path> names;
  for (const auto& entry : fs::directory_iterator(file_.parent_path())) names.push_back(entry.path());
  EXPECT_EQ(names, std::vector<fs::path>{file_});
}

TEST_F(DefaultsFile, ADamagedFileIsMovedAsideAndReported) {
  const std::string damaged = "{\"k\": \"v\", ";
  write(damaged);
  test::LogCapture log;
  UserDefaults defaults(file_);
  EXPECT_EQ(defaults.objectForKey("k"), Value{});
  fs::path aside = file_;
  aside += ".damaged";
  EXPECT_FALSE(fs::exists(file_));
  EXPECT_EQ(read(aside), damaged);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_NE(log.lines[0].find("damaged"), std::string::npos);
  EXPECT_NE(log.lines[0].find(aside.string()), std::string::npos);
}

TEST_F(DefaultsFile, AnEarlierDamagedCopyIsNeverOverwritten) {
  fs::path first = file_;
  first += ".damaged";
  fs::path second = file_;
  second += ".damaged.1";
  write("[1, 2]");  // valid JSON, but not a dictionary
  { test::LogCapture log; UserDefaults defaults(file_); }
  write("{\"k\": {\"unknown\": 1}}");  // a value of no known kind
  { test::LogCapture log; UserDefaults defaults(file_); }
  EXPECT_EQ(read(first), "[1, 2]");
  EXPECT_EQ(read(second), "{\"k\": {\"unknown\": 1}}");
}

TEST_F(DefaultsFile, TheStandardStoreFollowsTheConfigurationDirectory) {
  ::setenv("XDG_CONFIG_HOME", "/somewhere/config", 1);
  EXPECT_EQ(UserDefaults::standardPath(), fs::path("/somewhere/config/tqble/defaults.json"));
  ::unsetenv("XDG_CONFIG_HOME");
  ::setenv("HOME", "/home/driver", 1);
  EXPECT_EQ(UserDefaults::standardPath(), fs::path("/home/driver/.config/tqble/defaults.json"));
}

TEST_F(DefaultsFile, SavedValuesAreWrittenAtOnceAndReadBack) {
  UserDefaults::setStandardUserDefaultsPath(file_);
  ZGeneralTool::userDefaultSaveValue(std::string("13812345678"), "phone");
  EXPECT_EQ(ZGeneralTool::userDefaultObjiectForKey("phone"), Value{std::string("13812345678")});
  EXPECT_EQ(UserDefaults(file_).objectForKey("phone"), Value{std::string("13812345678")});
  EXPECT_EQ(ZGeneralTool::userDefaultObjiectForKey("absent"), Value{});
}

TEST_F(DefaultsFile, PageFlagsAreSharedByBothToolsAndKeptInMemoryOnly) {
  UserDefaults::setStandardUserDefaultsPath(file_);
  EXPECT_TRUE(ZGeneralTool::isFirstWith("guide"));
  EXPECT_TRUE(ZConverTool::isFirstWith("guide"));
  ZConverTool::savePageFlag("guide");
  EXPECT_FALSE(ZGeneralTool::isFirstWith("guide"));
  EXPECT_FALSE(ZConverTool::isFirstWith("guide"));
  EXPECT_EQ(ZGeneralTool::userDefaultObjiectForKey("guide"), Value{std::string("guide")});
  EXPECT_FALSE(fs::exists(file_));  // a flag waits for the next synchronize
  ZGeneralTool::savePageFlag("");   // the empty key stores an empty text: still "first"
  EXPECT_TRUE(ZGeneralTool::isFirstWith(""));
}

TEST_F(DefaultsFile, FirstVisitMeansNothingOrSomethingEmptyStored) {
  UserDefaults::setStandardUserDefaultsPath(file_);
  const std::pair<Value, bool> cases[] = {
      {std::string(), true},         {Bytes{}, true},
      {std::string("x"), false},     {Bytes{0}, false},
      {std::int64_t{0}, false},      {false, false},
      {std::vector<std::string>{}, false},
  };
  for (const auto& [value, first] : cases) {
    UserDefaults::standardUserDefaults().setObject(value, "k");
    EXPECT_EQ(ZGeneralTool::isFirstWith("k"), first) << value.index();
  }
}

}  // namespace
}  // namespace tqble
