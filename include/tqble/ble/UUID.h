#pragma once

#include <string>

namespace tqble::ble {

/// A Bluetooth attribute identifier, compared by its text form.
class UUID {
 public:
  UUID() = default;
  /// A full 128-bit text on the Bluetooth base ("0000fff0-0000-1000-8000-00805f9b34fb")
  /// becomes its short form "FFF0"; any other full text is upper-cased; a short form
  /// (4 or 8 digits) is kept exactly as given.
  static UUID fromString(const std::string& text);

  /// The text form: "FFF0" for a 16-bit identifier, upper-case full form otherwise.
  const std::string& UUIDString() const { return text_; }
  /// The full lower-case 128-bit text, as bluetoothd writes it: a short form is placed on
  /// the Bluetooth base ("FFF0" gives "0000fff0-0000-1000-8000-00805f9b34fb").
  std::string fullString() const;

  bool operator==(const UUID&) const = default;

 private:
  explicit UUID(std::string text) : text_(std::move(text)) {}
  std::string text_;
};

}  // namespace tqble::ble
