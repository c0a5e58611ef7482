#pragma once

#include <optional>
#include <string>

namespace tqble::detail {

/// Formats an instant (seconds since 1970, UTC) with ICU date-format pattern letters,
/// in the device's time zone and locale, like a fresh platform date formatter.
std::string formatDate(double secondsSince1970, const std::string& pattern);

/// Parses text with the same rules; nullopt when it does not parse.
std::optional<double> parseDate(const std::string& text, const std::string& pattern);

/// The current time as seconds since 1970.
double nowSeconds();

/// Re-reads the device's time zone (after TZ changed in the environment).
void refreshTimeZone();

}  // namespace tqble::detail
