#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tqble/platform/HostAdapters.h"

// Calls into the host adapters from the helpers.
namespace tqble::detail {

/// Hands a "tel:" text to the current dial hook.
void dial(const std::string& url, const std::shared_ptr<View>& view);

/// Measures text with the current text hook.
double measureTextHeight(const std::string& text, const Dictionary& attributes, double width);

/// The host's photo-library authorisation status.
std::int64_t photoLibraryAuthorizationStatus();

/// The host's camera authorisation status.
std::int64_t cameraAuthorizationStatus();

}  // namespace tqble::detail
