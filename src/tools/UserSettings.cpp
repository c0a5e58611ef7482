// User-settings shortcuts of ZGeneralTool and ZConverTool over the standard user defaults.
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/UserDefaults.h"

namespace tqble {
namespace {

// Only texts and bytes have a length; a stored number, flag or list counts as present.
bool firstVisit(const std::string& key) {
  const Value stored = UserDefaults::standardUserDefaults().objectForKey(key);
  if (std::holds_alternative<std::monostate>(stored)) return true;
  if (const auto* text = std::get_if<std::string>(&stored)) return text->empty();
  if (const auto* bytes = std::get_if<Bytes>(&stored)) return bytes->empty();
  return false;
}

// The flag is the key itself; it reaches the file with the next save, soon after.
void rememberVisit(const std::string& key) {
  UserDefaults::standardUserDefaults().setObject(key, key);
}

}  // namespace

void ZGeneralTool::userDefaultSaveValue(const Value& value, const std::string& key) {
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  defaults.setObject(value, key);
  defaults.synchronize();
}

Value ZGeneralTool::userDefaultObjiectForKey(const std::string& key) {
  return UserDefaults::standardUserDefaults().objectForKey(key);
}

bool ZGeneralTool::isFirstWith(const std::string& key) { return firstVisit(key); }

void ZGeneralTool::savePageFlag(const std::string& key) { rememberVisit(key); }

bool ZConverTool::isFirstWith(const std::string& key) { return firstVisit(key); }

void ZConverTool::savePageFlag(const std::string& key) { rememberVisit(key); }

}  // namespace tqble
