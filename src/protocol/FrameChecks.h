#pragma once

// The header checks the receiving manager never makes, for the tools that show answers:
// start byte, command byte, length field and checksum against the request they answer.

#include <cstddef>
#include <string>
#include <vector>

#include "tqble/platform/Value.h"

namespace tqble::protocol {

/// The body length a frame's header announces (bytes 4-5, little-endian); 0 when the
/// frame is shorter than a header.
std::size_t declaredBodyLength(const Bytes& frame);

/// One sentence per header field of `frame` that is not what a frame answering (or
/// echoing) `request` carries: too short for a header, start byte, command byte, length
/// field, checksum (unseeded). Empty when all agree.
std::vector<std::string> headerWarnings(const Bytes& request, const Bytes& frame);

}  // namespace tqble::protocol
