#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tqble/platform/Value.h"

namespace tqble {

/// A rectangle in points.
struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
};

/// A colour, each channel 0..1.
struct Color {
  double red = 0, green = 0, blue = 0, alpha = 0;
};

/// A minimal view value that the helpers build and a host may render.
struct View {
  Rect frame;
  Color backgroundColor;
  std::vector<std::shared_ptr<View>> subviews;

  /// Appends `subview` to subviews.
  void addSubview(std::shared_ptr<View> subview) { subviews.push_back(std::move(subview)); }
};

/// Opens a "tel:" text; `view` is the view the dialler is presented from (may be null).
using DialHook = std::function<void(const std::string& url, const std::shared_ptr<View>& view)>;
/// Replaces the dial hook; empty restores the default, which only logs the text.
void setDialHook(DialHook hook);

/// Height of `text` wrapped to `width` with the given text attributes.
using TextMeasureHook =
    std::function<double(const std::string& text, const Dictionary& attributes, double width)>;
/// Replaces the text hook; empty restores the default estimate (see estimateTextHeight).
void setTextMeasureHook(TextMeasureHook hook);
/// Default estimate: font size from attribute "NSFont" (a number, else 17), ASCII half
/// and other characters full width, wrapped to `width`, lines of 1.2 × font size.
double estimateTextHeight(const std::string& text, const Dictionary& attributes, double width);

/// Authorisation status: 0 not determined, 1 restricted, 2 denied, 3 authorised.
using AuthorizationProvider = std::function<std::int64_t()>;
/// Replaces the photo-library status; empty restores the default, 0 (not determined).
void setPhotoLibraryAuthorizationProvider(AuthorizationProvider provider);
/// Replaces the camera status; empty restores the default, 0 (not determined).
void setCameraAuthorizationProvider(AuthorizationProvider provider);

}  // namespace tqble
