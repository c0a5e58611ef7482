// The post's side of the charger protocol: reads request frames, applies them to its
// state and lays out the answers.
//
// Requests are checked as a post would: start byte, length and checksum (seeded with
// the post's checksum seed). A request failing a check, or with an unknown command
// code, gets no answer at all.
#include "tqble/sim/VirtualPost.h"

#include "protocol/Frame.h"

#include <algorithm>

namespace tqble::sim {
namespace {

using protocol::kFrameHeaderLength;
constexpr std::uint8_t kAccepted = 0x00;
constexpr std::uint8_t kRefused = 0x01;

void putLE(Bytes& out, std::uint64_t value, int size) {
  for (int i = 0; i < size; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void putBE(Bytes& out, std::uint64_t value, int size) {
  for (int i = size - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// The volume travels as its decimal digits read as hex digits (35 as 0x35); a single
// digit is lost on the way and arrives as an empty body. Returns -1 when unreadable.
int volumeFrom(const Bytes& body) {
  if (body.empty() || body.size() > 2) return -1;
  int value = 0;
  for (std::uint8_t b : body) {
    if ((b >> 4) > 9 || (b & 0x0F) > 9) return -1;
    value = value * 100 + (b >> 4) * 10 + (b & 0x0F);
  }
  return value <= 100 ? value : -1;
}

// Serial numbers go out one decimal digit per byte, the last four digits.
void putSerialDigits(Bytes& out, std::uint32_t serial) {
  for (std::uint32_t divisor : {1000u, 100u, 10u, 1u}) out.push_back(static_cast<std::uint8_t>(serial / divisor % 10));
}

// The post number goes out one decimal digit per byte, 20 bytes, padded with zeros.
void putNumberDigits(Bytes& out, const std::string& number) {
  for (std::size_t i = 0; i < 20; ++i) {
    const char c = i < number.size() ? number[i] : '0';
    out.push_back(static_cast<std::uint8_t>(c >= '0' && c <= '9' ? c - '0' : 0));
  }
}

Bytes systemInfoBody(const PostModel& model, std::uint8_t gun) {
  const PostIdentity& id = model.identity();
  Bytes body;
  putNumberDigits(body, id.number);
  body.push_back(id.postType);
  body.push_back(id.manufacturer);
  putBE(body, id.magic, 4);
  body.push_back(id.protocolMinor);  // the later component comes first
  body.push_back(id.protocolMajor);
  body.push_back(id.firmware[2]);
  body.push_back(id.firmware[1]);
  body.push_back(id.firmware[0]);
  Bytes firmwareModel = id.firmwareModel;
  firmwareModel.resize(20, 0);
  firmwareModel[15] = model.reservation() ? 0x01 : 0x00;  // charging mode: timed or immediate
  body.insert(body.end(), firmwareModel.begin(), firmwareModel.end());
  body.push_back(static_cast<std::uint8_t>(model.volume()));
  putLE(body, static_cast<std::uint32_t>(static_cast<std::int32_t>(model.clock())), 4);
  body.push_back(0);
  body.push_back(0);
  body.push_back(gun);
  return body;  // 59 bytes
}

Bytes stateBody(const PostModel& model) {
  Bytes body;
  body.push_back(static_cast<std::uint8_t>(model.gunState()));
  putSerialDigits(body, model.sessionSerial());
  putLE(body, std::min<std::uint32_t>(model.sessionEnergy(), 0xFFFF), 2);
  putLE(body, model.voltage(), 4);
  putLE(body, std::min<std::uint32_t>(model.current(), 0xFFFF), 2);
  putLE(body, model.sessionDuration(), 4);
  body.push_back(0);
  return body;  // 18 bytes
}

Bytes faultBody(std::uint8_t gun, std::uint16_t code) {
  Bytes body{gun};
  putBE(body, code, 2);
  body.push_back(0);
  return body;  // 4 bytes
}

Bytes historyBody(const PostModel& model, bool allowTwentyByteTail) {
  const auto& history = model.history();
  Bytes body{0x00, 0x00};
  putBE(body, history.size(), 2);
  for (const HistoryEntry& e : history) {
    putBE(body, e.serial, 4);
    putBE(body, e.energy, 2);
    putLE(body, static_cast<std::uint32_t>(e.start), 4);
    putLE(body, static_cast<std::uint32_t>(e.end), 4);
    putLE(body, static_cast<std::uint32_t>(e.duration), 4);
    body.push_back(0);
  }
  // The phone takes a piece shorter than 20 bytes as the end of a list, so an answer
  // must not end on a full piece.
  if (!allowTwentyByteTail && (kFrameHeaderLength + body.size()) % protocol::kFullNotification == 0) body.push_back(0);
  return body;
}

Bytes errorLogBody(const PostModel& model) {
  const auto& errors = model.errors();
  Bytes body{0x00, 0x00, static_cast<std::uint8_t>(errors.size())};
  for (const ErrorEntry& e : errors) {
    putLE(body, static_cast<std::uint32_t>(e.time), 4);
    body.push_back(e.code);
    body.insert(body.end(), 3, 0);
  }
  return body;
}

std::uint8_t chargeStateCode(const PostModel& model) {
  switch (model.gunState()) {
    case GunState::PluggedIn: return model.reservation() ? 2 : 1;
    case GunState::Charging: return 3;
    case GunState::Finished: return 5;
    default: return 0;
  }
}

Bytes diagnosisBody(const PostModel& model) {
  const PostIdentity& id = model.identity();
  Bytes body;
  putNumberDigits(body, id.number);
  body.resize(58, 0);
  body[20] = id.firmware[0];
  body[21] = id.firmware[1];
  body[22] = id.firmware[2];
  body[30] = chargeStateCode(model);
  body[31] = model.errorBits();
  body[32] = static_cast<std::uint8_t>(std::min<std::uint32_t>(model.voltage() / 10, 255));
  const auto& reservation = model.reservation();
  body[34] = reservation ? 1 : 0;  // start mode: timed or immediate
  body[35] = reservation ? reservation->startHour : 0;
  body[36] = reservation ? reservation->startMinute : 0;
  body[39] = id.currentRating;
  body[40] = 0;  // network connected
  body[43] = 1;  // meter working
  body[44] = 1;  // screen working
  body[45] = model.gunState() == GunState::Charging ? 1 : 0;  // connector locked
  return body;
}

}  // namespace

VirtualPost::VirtualPost(PostSetup setup) : setup_(std::move(setup)), model_(setup_.identity) {}

Bytes VirtualPost::answer(std::uint8_t cmd, const Bytes& body) {
  Bytes frame = protocol::buildFrame(cmd, 0x00, &body, 0x00);
  answers_.push_back(frame);
  return frame;
}

std::vector<Bytes> VirtualPost::handleWrite(const Bytes& write) {
  writes_.push_back(write);
  std::vector<Bytes> out;
  std::size_t at = 0;
  while (write.size() - at >= kFrameHeaderLength) {
    const std::uint8_t cmd = write[at + 1];
    const std::size_t length = write[at + 4] | (std::size_t{write[at + 5]} << 8);
    if (at + kFrameHeaderLength + length > write.size()) break;
    const std::size_t end = at + kFrameHeaderLength + length;
    const Bytes body(write.begin() + static_cast<std::ptrdiff_t>(at + kFrameHeaderLength),
                     write.begin() + static_cast<std::ptrdiff_t>(end));
    // Intact means exactly the frame this post would build: start byte, length, checksum.
    const Bytes expected = protocol::buildFrame(cmd, write[at + 2], &body, setup_.checksumSeed);
    const bool intact = std::equal(expected.begin(), expected.end(),
                                   write.begin() + static_cast<std::ptrdiff_t>(at));
    if (write[at] != expected[0]) break;
    at = end;
    if (!intact) continue;

    const bool refused = faults_.refuse.contains(cmd);
    auto ack = [&](bool ok) { out.push_back(answer(cmd, {ok && !refused ? kAccepted : kRefused})); };
    const std::uint8_t gun = static_cast<std::uint8_t>(model_.gunState());
    switch (cmd) {
      case protocol::kCmdSynchroTime:
        if (body.size() == 4 && !refused) {
          const std::int32_t seconds = static_cast<std::int32_t>(body[0] | body[1] << 8 | body[2] << 16 |
                                                                 static_cast<std::uint32_t>(body[3]) << 24);
          model_.setClock(seconds);
        }
        ack(body.size() == 4);
        break;
      case protocol::kCmdSystemInfo:
        out.push_back(answer(cmd, systemInfoBody(model_, gun)));
        break;
      case protocol::kCmdVolume: {
        const int volume = volumeFrom(body);
        if (volume >= 0 && !refused) model_.setVolume(volume);
        ack(volume >= 0);
        break;
      }
      case protocol::kCmdOrder: {
        bool ok = false;
        if (body.size() == 5 && body[0] == 0x01) {
          ok = body[1] < 24 && body[2] < 60 && body[3] < 24 && body[4] < 60;
          if (ok && !refused) model_.setReservation(Reservation{body[1], body[2], body[3], body[4]});
        } else if (body.size() >= 1 && body[0] == 0x00) {
          ok = true;
          if (!refused) model_.setReservation(std::nullopt);
        }
        ack(ok);
        break;
      }
      case protocol::kCmdStartCharging:
        ack(!refused && model_.startCharging());
        break;
      case protocol::kCmdStopCharge:
        ack(!refused && model_.stopCharging());
        break;
      case protocol::kCmdChargerState:
        if (faults_.faultAnswer) {
          out.push_back(answer(cmd, faultBody(gun, *faults_.faultAnswer)));
        } else if (model_.gunState() == GunState::Fault) {
          out.push_back(answer(cmd, faultBody(gun, model_.faultCode())));
        } else {
          out.push_back(answer(cmd, stateBody(model_)));
        }
        break;
      case protocol::kCmdHistory:
        out.push_back(answer(cmd, historyBody(model_, faults_.allowTwentyByteTail)));
        break;
      case protocol::kCmdCumulation: {
        Bytes energy;
        putLE(energy, model_.cumulativeEnergy(), 4);
        energy.push_back(0);
        out.push_back(answer(cmd, energy));
        break;
      }
      case protocol::kCmdErrorLog:
        out.push_back(answer(cmd, errorLogBody(model_)));
        break;
      case protocol::kCmdDiagnosis:
        out.push_back(answer(cmd, diagnosisBody(model_)));
        break;
      default:
        break;  // unknown command: no answer
    }
  }
  if (faults_.mute) out.clear();
  return out;
}

}  // namespace tqble::sim
