#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tqble/platform/Value.h"

namespace tqble {

/// An error object; the SDK's own errors carry their message text as the domain.
struct TQError {
  std::string domain;
  std::int64_t code = 0;
  Dictionary userInfo;

  bool operator==(const TQError&) const = default;
};

/// A completion handler that is called only on failure; an empty function means none.
using TQErrorHandler = std::function<void(const TQError& error)>;

}  // namespace tqble
