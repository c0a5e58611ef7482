#include "tqble/ble/UUID.h"

#include <algorithm>
#include <cctype>

namespace tqble::ble {
namespace {

// What follows the first group of an identifier on the Bluetooth base.
constexpr char kBaseSuffix[] = "-0000-1000-8000-00805F9B34FB";

std::string cased(std::string text, bool upper) {
  std::transform(text.begin(), text.end(), text.begin(), [upper](unsigned char c) {
    return static_cast<char>(upper ? std::toupper(c) : std::tolower(c));
  });
  return text;
}

}  // namespace

UUID UUID::fromString(const std::string& text) {
  if (text.size() != 36) return UUID(text);
  std::string full = cased(text, true);
  if (full.compare(8, std::string::npos, kBaseSuffix) != 0) return UUID(full);
  // On the Bluetooth base: 16-bit identifiers show four digits, 32-bit ones eight.
  return UUID(full.compare(0, 4, "0000") == 0 ? full.substr(4, 4) : full.substr(0, 8));
}

std::string UUID::fullString() const {
  std::string text = text_;
  if (text.size() == 4) text.insert(0, "0000");
  if (text.size() == 8) text += kBaseSuffix;
  return cased(std::move(text), false);
}

}  // namespace tqble::ble
