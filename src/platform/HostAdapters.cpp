#include <unicode/unistr.h>

#include "platform/HostHooks.h"
#include "tqble/platform/Log.h"

namespace tqble {
namespace {

// A host without a dialler: nothing to open, so the text is logged for the developer.
void logDial(const std::string& url, const std::shared_ptr<View>& /*view*/) {
  TQLog("no dialler on this host: %s", url.c_str());
}

DialHook& dialHook() {
  static DialHook hook;
  return hook;
}

TextMeasureHook& textMeasureHook() {
  static TextMeasureHook hook;
  return hook;
}

AuthorizationProvider& photoLibraryProvider() {
  static AuthorizationProvider provider;
  return provider;
}

AuthorizationProvider& cameraProvider() {
  static AuthorizationProvider provider;
  return provider;
}

constexpr double kDefaultFontSize = 17.0;

}  // namespace

void setDialHook(DialHook hook) { dialHook() = std::move(hook); }

void setTextMeasureHook(TextMeasureHook hook) { textMeasureHook() = std::move(hook); }

void setPhotoLibraryAuthorizationProvider(AuthorizationProvider provider) {
  photoLibraryProvider() = std::move(provider);
}

void setCameraAuthorizationProvider(AuthorizationProvider provider) {
  cameraProvider() = std::move(provider);
}

double estimateTextHeight(const std::string& text, const Dictionary& attributes, double width) {
  double fontSize = kDefaultFontSize;
  if (auto it = attributes.find("NSFont"); it != attributes.end()) {
    if (const auto* size = std::get_if<double>(&it->second)) fontSize = *size;
    if (const auto* size = std::get_if<std::int64_t>(&it->second)) {
      fontSize = static_cast<double>(*size);
    }
  }
  if (text.empty()) return 0.0;
  // Each explicit line wraps on its own; a character wider than the line still fits one.
  const icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(text);
  double lines = 1;
  double lineWidth = 0;
  for (std::int32_t i = 0; i < unicode.length(); i = unicode.moveIndex32(i, 1)) {
    const UChar32 c = unicode.char32At(i);
    if (c == '\n') {
      ++lines;
      lineWidth = 0;
      continue;
    }
    const double advance = c < 0x80 ? fontSize / 2 : fontSize;
    if (lineWidth > 0 && lineWidth + advance > width) {
      ++lines;
      lineWidth = 0;
    }
    lineWidth += advance;
  }
  return lines * fontSize * 1.2;
}

namespace detail {

void dial(const std::string& url, const std::shared_ptr<View>& view) {
  if (dialHook()) {
    dialHook()(url, view);
  } else {
    logDial(url, view);
  }
}

double measureTextHeight(const std::string& text, const Dictionary& attributes, double width) {
  return textMeasureHook() ? textMeasureHook()(text, attributes, width)
                           : estimateTextHeight(text, attributes, width);
}

std::int64_t photoLibraryAuthorizationStatus() {
  return photoLibraryProvider() ? photoLibraryProvider()() : 0;
}

std::int64_t cameraAuthorizationStatus() { return cameraProvider() ? cameraProvider()() : 0; }

}  // namespace detail
}  // namespace tqble
