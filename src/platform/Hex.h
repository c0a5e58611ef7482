#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tqble/platform/Value.h"

namespace tqble::detail {

/// Each byte as two lower-case hex digits, no separators.
std::string hexText(const Bytes& bytes);

/// The value of one hex digit (either case); -1 for any other character.
int hexDigitValue(char c);

/// The bytes of an even number of hex digits (either case, no separators); nullopt for
/// any other text.
std::optional<Bytes> bytesOfHex(std::string_view hex);

}  // namespace tqble::detail
