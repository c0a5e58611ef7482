#include "tqble/ble/UUID.h"

#include <algorithm>
#include <cctype>

namespace tqble::ble {
namespace {

constexpr char kBaseSuffix[] = "-0000-1000-8000-00805F9B34FB";

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

}  // namespace

UUID UUID::fromString(const std::string& text) {
  if (text.size() != 36) return UUID(text);
  std::string full = upper(text);
  if (full.compare(8, std::string::npos, kBaseSuffix) != 0) return UUID(full);
  // On the Bluetooth base: 16-bit identifiers show four digits, 32-bit ones eight.
  return UUID(full.compare(0, 4, "0000") == 0 ? full.substr(4, 4) : full.substr(0, 8));
}

}  // namespace tqble::ble
