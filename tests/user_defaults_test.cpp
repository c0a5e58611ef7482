#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/UserDefaults.h"

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
  void TearDown() override { fs::remove_all(dir_); }

  const fs::path dir_ =
      fs::temp_directory_path() / ("tqble-defaults-" + std::to_string(::getpid()) + "-" +
                                   testing::UnitTest::GetInstance()->current_test_info()->name());
  const fs::path file_ = dir_ / "nested" / "defaults.json";
};

TEST_F(DefaultsFile, EveryKindOfValueSurvivesARestartButOnlyAfterSynchronize) {
  EXPECT_EQ(UserDefaults::standardPath(), dir_ / "tqble" / "defaults.json");
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
  EXPECT_FALSE(fs::exists(file_));
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

TEST_F(DefaultsFile, SavedValuesAreWrittenAtOncePageFlagsStayInMemoryAndEmptyMeansFirst) {
  UserDefaults::setStandardUserDefaultsPath(file_);
  ZGeneralTool::userDefaultSaveValue(std::string("13812345678"), "phone");
  EXPECT_EQ(UserDefaults(file_).objectForKey("phone"), Value{std::string("13812345678")});
  EXPECT_TRUE(ZGeneralTool::isFirstWith("guide") && ZConverTool::isFirstWith("guide"));
  ZConverTool::savePageFlag("guide");  // both tools share the flag
  EXPECT_FALSE(ZGeneralTool::isFirstWith("guide") || ZConverTool::isFirstWith("guide"));
  EXPECT_EQ(ZGeneralTool::userDefaultObjiectForKey("guide"), Value{std::string("guide")});
  EXPECT_EQ(UserDefaults(file_).objectForKey("guide"), Value{});  // until the next synchronize
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

}  // namespace
}  // namespace tqble

namespace tqble {
namespace {

// The test runs itself again as a second process that saves through the public helpers.
TEST(DefaultsRestart, ValuesSavedByOneProcessAreReadByTheNextAndPageFlagsAreNot) {
  if (std::getenv("TQBLE_DEFAULTS_WRITER")) {
    ZGeneralTool::userDefaultSaveValue(std::string("FFF3"), "lastPost");  // synchronizes
    ZGeneralTool::savePageFlag("guideSeen");                              // memory only
    return;
  }
  const fs::path dir = fs::temp_directory_path() / ("tqble-restart-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  ::setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
  const std::string child = "TQBLE_DEFAULTS_WRITER=1 '" +
                            fs::read_symlink("/proc/self/exe").string() +
                            "' --gtest_filter=DefaultsRestart.* >/dev/null";
  ASSERT_EQ(std::system(child.c_str()), 0);
  EXPECT_EQ(ZGeneralTool::userDefaultObjiectForKey("lastPost"), Value{std::string("FFF3")});
  EXPECT_TRUE(ZGeneralTool::isFirstWith("guideSeen"));
  fs::remove_all(dir);
}

}  // namespace
}  // namespace tqble
