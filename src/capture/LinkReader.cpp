// From HCI packets to the post's ATT values: connections from the LE connection events,
// ACL fragments gathered into L2CAP frames, ATT on the fixed channel (CID 4) and on the
// enhanced credit-based channels opened on ATT's PSM (EATT), and the FFF3/FFF4 handles
// from the characteristic discovery.
#include <array>
#include <map>
#include <set>
#include <tuple>

#include "HciPackets.h"
#include "tqble/capture/Capture.h"

namespace tqble::capture {
namespace {

constexpr std::uint16_t kAttChannel = 0x0004;
constexpr std::uint16_t kLeSignalling = 0x0005;
constexpr std::uint16_t kEattPsm = 0x0027;
constexpr std::uint16_t kWriteUuid = 0xFFF3;
constexpr std::uint16_t kNotifyUuid = 0xFFF4;
constexpr std::uint16_t kCharacteristicDeclaration = 0x2803;
// The Bluetooth base UUID, as 128-bit UUIDs travel (little-endian), less bytes 12-13.
constexpr std::array<std::uint8_t, 16> kBaseUuid = {0xFB, 0x34, 0x9B, 0x5F, 0x80, 0x00, 0x00, 0x80,
                                                    0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};

// 0: from the host to the controller, 1: from the controller to the host.
using Direction = int;

// A 16-bit UUID from its 2-byte or base-derived 16-byte form; 0 for any other.
std::uint16_t shortUuid(const Bytes& b, std::size_t at, std::size_t size) {
  if (size == 2) return le16(b, at);
  if (size != 16) return 0;
  for (std::size_t i = 0; i < 16; ++i) {
    if (i != 12 && i != 13 && b[at + i] != kBaseUuid[i]) return 0;
  }
  return le16(b, at + 12);
}

std::string address(const Bytes& b, std::size_t at) {
  static const char* digits = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 6; i-- > 0;) {
    text += digits[b[at + i] >> 4];
    text += digits[b[at + i] & 0xF];
    if (i) text += ':';
  }
  return text;
}

struct Sdu {
  Bytes data;
  std::size_t expected = 0;
};

struct LinkState {
  std::array<Bytes, 2> l2cap;  // the L2CAP frame being gathered, per direction
  // Channels on ATT's PSM and on others; a monitor may miss some of the signalling, so
  // once a link opened EATT, a dynamic channel of no other PSM is taken for EATT too.
  std::set<std::uint16_t> eatt, other;
  std::map<std::pair<Direction, std::uint16_t>, Sdu> sdus;
  std::map<std::uint8_t, bool> opening;  // signalling identifier -> on ATT's PSM
  std::array<std::uint16_t, 2> readByType{};  // the type last asked for, per direction
  Handles found;

  bool carriesAtt(std::uint16_t cid) const {
    return eatt.contains(cid) || (!eatt.empty() && cid >= 0x0040 && !other.contains(cid));
  }
};

class Reader {
 public:
  explicit Reader(const Handles& given) : given_(given) {}

  Traffic read(const HciCapture& capture) {
    traffic_.datalink = capture.datalink;
    if (!capture.packets.empty()) traffic_.startMicros = capture.packets.front().micros;
    for (const auto& packet : capture.packets) {
      packet_ = &packet;
      if (packet.kind == HciKind::Event) {
        event(packet.data);
      } else if (packet.kind == HciKind::AclToController) {
        acl(0, packet.data);
      } else if (packet.kind == HciKind::AclFromController) {
        acl(1, packet.data);
      }
    }
    for (std::size_t i = 0; i < traffic_.links.size(); ++i) {
      Link& link = traffic_.links[i];
      const Handles& found = states_[i].found;
      link.discovered = found.write && found.notify;
      link.handles.write = found.write ? found.write : given_.write;
      link.handles.notify = found.notify ? found.notify : given_.notify;
    }
    // Only now are the handles known: keep the values on them.
    std::vector<Piece> kept;
    for (std::size_t i = 0; i < traffic_.pieces.size(); ++i) {
      Piece& p = traffic_.pieces[i];
      const Handles& h = traffic_.links[p.link].handles;
      if (handles_[i] == (p.write ? h.write : h.notify)) kept.push_back(std::move(p));
    }
    traffic_.pieces = std::move(kept);
    return std::move(traffic_);
  }

 private:
  std::size_t newLink(std::uint16_t connection, std::string peer) {
    traffic_.links.push_back(Link{packet_->adapter, connection, std::move(peer), {}, false, 0});
    states_.emplace_back();
    const std::size_t index = traffic_.links.size() - 1;
    open_[{packet_->adapter, connection}] = index;
    return index;
  }

  void event(const Bytes& e) {
    if (e.size() < 2 || e.size() < 2u + e[1]) return;
    const std::uint8_t code = e[0];
    if (code == 0x3E && e.size() >= 14) {
      // LE Connection Complete (0x01) and the enhanced ones (0x0A, 0x29) begin alike.
      const std::uint8_t sub = e[2];
      if ((sub == 0x01 || sub == 0x0A || sub == 0x29) && e[3] == 0) {
        newLink(le16(e, 4) & 0x0FFF, address(e, 8));
      }
    } else if (code == 0x05 && e.size() >= 6 && e[2] == 0) {
      open_.erase({packet_->adapter, static_cast<std::uint16_t>(le16(e, 3) & 0x0FFF)});
    }
  }

  void acl(Direction direction, const Bytes& p) {
    if (p.size() < 4) return;
    const std::uint16_t connection = le16(p, 0) & 0x0FFF;
    const int boundary = (le16(p, 0) >> 12) & 3;
    const auto found = open_.find({packet_->adapter, connection});
    const std::size_t link = found != open_.end() ? found->second : newLink(connection, "");
    Bytes& frame = states_[link].l2cap[direction];
    if (boundary != 1) frame.clear();  // a first fragment starts a new frame
    frame.insert(frame.end(), p.begin() + 4, p.end());
    if (frame.size() < 4 || frame.size() < 4u + le16(frame, 0)) return;
    const std::uint16_t cid = le16(frame, 2);
    const Bytes payload(frame.begin() + 4, frame.begin() + 4 + le16(frame, 0));
    frame.clear();
    l2cap(link, direction, cid, payload);
  }

  void l2cap(std::size_t link, Direction direction, std::uint16_t cid, const Bytes& payload) {
    LinkState& state = states_[link];
    if (cid == kAttChannel) {
      att(link, direction, payload);
    } else if (cid == kLeSignalling) {
      signalling(state, payload);
    } else if (state.carriesAtt(cid)) {
      // Credit-based frames: the first of an SDU carries its length.
      Sdu& sdu = state.sdus[{direction, cid}];
      std::size_t from = 0;
      if (sdu.data.empty()) {
        if (payload.size() < 2) return;
        sdu.expected = le16(payload, 0);
        from = 2;
      }
      sdu.data.insert(sdu.data.end(), payload.begin() + static_cast<std::ptrdiff_t>(from),
                      payload.end());
      if (sdu.data.size() < sdu.expected) return;
      const Bytes pdu = std::move(sdu.data);
      sdu = {};
      att(link, direction, pdu);
    }
  }

  void signalling(LinkState& state, const Bytes& s) {
    if (s.size() < 4) return;
    const std::uint8_t code = s[0];
    const std::uint8_t identifier = s[1];
    // The channel identifiers a request or a response names, from `from` on.
    auto note = [&s](std::set<std::uint16_t>& into, std::size_t from, bool one) {
      for (std::size_t i = from; i + 1 < s.size() && (!one || i == from); i += 2) {
        if (le16(s, i)) into.insert(le16(s, i));
      }
    };
    if ((code == 0x14 || code == 0x17) && s.size() >= 8) {
      // LE and enhanced credit-based connection requests: PSM, then the source CIDs.
      const bool att = le16(s, 4) == kEattPsm;
      state.opening[identifier] = att;
      note(att ? state.eatt : state.other, code == 0x14 ? 6 : 12, code == 0x14);
    } else if ((code == 0x15 || code == 0x18) && state.opening.contains(identifier)) {
      note(state.opening[identifier] ? state.eatt : state.other, code == 0x15 ? 4 : 12,
           code == 0x15);
    }
  }

  void att(std::size_t link, Direction direction, const Bytes& pdu) {
    if (pdu.empty()) return;
    LinkState& state = states_[link];
    ++traffic_.links[link].values;
    const std::uint8_t opcode = pdu[0];
    switch (opcode) {
      case 0x08:  // Read By Type Request: start, end, type
        if (pdu.size() >= 7) state.readByType[direction] = shortUuid(pdu, 5, pdu.size() - 5);
        break;
      case 0x09:  // Read By Type Response: characteristic declarations
        if (state.readByType[1 - direction] == kCharacteristicDeclaration && pdu.size() >= 2 &&
            pdu[1] >= 7) {
          for (std::size_t at = 2; at + pdu[1] <= pdu.size(); at += pdu[1]) {
            found(state, le16(pdu, at + 3), shortUuid(pdu, at + 5, pdu[1] - 5u));
          }
        }
        break;
      case 0x05:  // Find Information Response, 16-bit format: every attribute with its type
        if (pdu.size() >= 2 && pdu[1] == 1) {
          for (std::size_t at = 2; at + 4 <= pdu.size(); at += 4) {
            found(state, le16(pdu, at), le16(pdu, at + 2));
          }
        }
        break;
      case 0x12:  // Write Request
      case 0x52:  // Write Command
        if (pdu.size() >= 3) value(link, true, le16(pdu, 1), pdu, 3, pdu.size());
        break;
      case 0x1B:  // Handle Value Notification
      case 0x1D:  // Handle Value Indication
        if (pdu.size() >= 3) value(link, false, le16(pdu, 1), pdu, 3, pdu.size());
        break;
      case 0x23:  // Multiple Handle Value Notification: handle, length, value, ...
        for (std::size_t at = 1; at + 4 <= pdu.size();) {
          const std::size_t end = std::min(pdu.size(), at + 4 + le16(pdu, at + 2));
          value(link, false, le16(pdu, at), pdu, at + 4, end);
          at = end;
        }
        break;
      default:
        break;
    }
  }

  void found(LinkState& state, std::uint16_t handle, std::uint16_t uuid) {
    if (uuid == kWriteUuid) state.found.write = handle;
    if (uuid == kNotifyUuid) state.found.notify = handle;
  }

  // The value at [at, end) of `pdu`, written to or notified on `handle`.
  void value(std::size_t link, bool write, std::uint16_t handle, const Bytes& pdu,
             std::size_t at, std::size_t end) {
    // Subtracted as doubles: a damaged stamp may lie anywhere on the 64-bit scale.
    const double seconds = (static_cast<double>(packet_->micros) -
                            static_cast<double>(traffic_.startMicros)) / 1e6;
    Piece piece{link, write, packet_->record, seconds,
                Bytes(pdu.begin() + static_cast<std::ptrdiff_t>(at),
                      pdu.begin() + static_cast<std::ptrdiff_t>(end))};
    traffic_.pieces.push_back(std::move(piece));
    handles_.push_back(handle);
  }

  Handles given_;
  Traffic traffic_;
  std::vector<LinkState> states_;
  std::vector<std::uint16_t> handles_;  // the attribute handle of each piece
  std::map<std::pair<std::uint16_t, std::uint16_t>, std::size_t> open_;
  const HciPacket* packet_ = nullptr;
};

}  // namespace

Traffic readBtsnoop(const Bytes& file, const Handles& given) {
  return Reader(given).read(readHciPackets(file));
}

}  // namespace tqble::capture
