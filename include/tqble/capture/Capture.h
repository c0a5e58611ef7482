#pragma once

// A recorded Bluetooth capture read as the post's conversation: btsnoop files (btmon's
// monitor format and the phones' H4 snoop logs), HCI ACL to L2CAP to ATT on the fixed
// channel and on EATT, the FFF3 writes and FFF4 notifications of every link, replayed
// through the manager's own reassembly and decoders.

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tqble/Models.h"
#include "tqble/platform/Value.h"

namespace tqble {
class TQBleManager;
}

namespace tqble::capture {

/// A file that is no btsnoop capture, or is truncated or corrupted; the message names the
/// record number and the byte offset where reading stopped.
struct CaptureError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Attribute handles of the post's characteristics, when the capture lacks the discovery.
struct Handles {
  std::optional<std::uint16_t> write;   ///< FFF3
  std::optional<std::uint16_t> notify;  ///< FFF4
};

/// One connection: an adapter's connection handle, from its connection event to its end.
struct Link {
  std::uint16_t adapter = 0;     ///< controller index (0 in an H4 log)
  std::uint16_t connection = 0;  ///< HCI connection handle
  std::string peer;              ///< the peer's address, empty without a connection event
  Handles handles;               ///< as discovered, else as given
  bool discovered = false;       ///< whether both handles came from the capture
  std::size_t values = 0;        ///< ATT values seen on the link, on any handle
};

/// One ATT value written to FFF3 or notified on FFF4.
struct Piece {
  std::size_t link = 0;    ///< index into Traffic::links
  bool write = false;      ///< a write to FFF3, else a notification or indication on FFF4
  std::uint64_t record = 0;  ///< record number in the file, from 1
  double time = 0;           ///< seconds since the first record
  Bytes value;
};

/// The post's traffic of a capture, in record order.
struct Traffic {
  std::uint32_t datalink = 0;   ///< 2001 (monitor) or 1002 (H4)
  std::int64_t startMicros = 0;  ///< time of the first record, microseconds since 1970
  std::vector<Link> links;
  std::vector<Piece> pieces;
};

/// What the manager made of an answer.
struct Answer {
  Bytes frame;                 ///< the whole answer as the manager dispatched it
  std::int64_t cmdType = 0;    ///< the pending tag it was dispatched by
  double latency = 0;          ///< seconds from the request to the last piece
  /// The record the delegate received with the dispatching update (result or state).
  std::shared_ptr<TQBleDataModel> model;
  /// The ten system-information rows as the answer left them (system information only).
  std::vector<ZRunStateModel> rows;
  std::string decoderError;  ///< what the manager's decoder threw, if it threw
};

/// A request and its answer; a piece with no request makes an exchange without one.
struct Exchange {
  std::size_t link = 0;
  std::optional<Piece> request;
  std::string command;  ///< the manager's operation for the command byte; empty if none
  std::vector<Piece> pieces;
  std::optional<Answer> answer;
  std::vector<std::string> warnings;
};

/// The conversation of every link, in the order the requests (or stray pieces) came.
struct Timeline {
  Traffic traffic;
  std::vector<Exchange> exchanges;
  std::vector<std::string> notes;  ///< links whose post traffic could not be told apart
};

/// The FFF3/FFF4 traffic of a btsnoop file; `given` fills the handles of links whose
/// discovery is not in the capture.
/// @throws CaptureError when the file is no btsnoop capture or is truncated or corrupted.
Traffic readBtsnoop(const Bytes& file, const Handles& given = {});

/// Replays `traffic` through `manager`: each request issues its command (so give a
/// manager whose writes go nowhere), each piece is delivered as a value update. The
/// manager's pending command, buffer and delegate are restored afterwards.
Timeline replay(Traffic traffic, TQBleManager& manager);

}  // namespace tqble::capture
