#include "platform/DateFormat.h"

#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <chrono>
#include <ctime>
#include <memory>

namespace tqble::detail {
namespace {

std::unique_ptr<icu::SimpleDateFormat> makeFormatter(const std::string& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  auto formatter = std::make_unique<icu::SimpleDateFormat>(
      icu::UnicodeString::fromUTF8(pattern), icu::Locale::getDefault(), status);
  if (U_FAILURE(status)) return nullptr;
  return formatter;
}

}  // namespace

std::string formatDate(double secondsSince1970, const std::string& pattern) {
  auto formatter = makeFormatter(pattern);
  if (!formatter) return {};
  icu::UnicodeString text;
  formatter->format(static_cast<UDate>(secondsSince1970 * 1000.0), text);
  std::string utf8;
  text.toUTF8String(utf8);
  return utf8;
}

std::optional<double> parseDate(const std::string& text, const std::string& pattern) {
  auto formatter = makeFormatter(pattern);
  if (!formatter) return std::nullopt;
  formatter->setLenient(false);
  UErrorCode status = U_ZERO_ERROR;
  const UDate date = formatter->parse(icu::UnicodeString::fromUTF8(text), status);
  if (U_FAILURE(status)) return std::nullopt;
  return date / 1000.0;
}

double nowSeconds() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

void refreshTimeZone() {
  tzset();
  icu::TimeZone::adoptDefault(icu::TimeZone::detectHostTimeZone());
}

}  // namespace tqble::detail
