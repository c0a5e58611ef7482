#include "tools/Printf.h"

#include "platform/Text.h"

namespace tqble::detail {

std::string printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = vformat(format, args);
  va_end(args);
  return text;
}

}  // namespace tqble::detail
