#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tqble/platform/Value.h"
#include "tqble/sim/Faults.h"
#include "tqble/sim/PostModel.h"

namespace tqble::sim {

/// How a virtual post presents itself on the radio.
struct PostSetup {
  std::string identifier = "SIM-POST-0001";  ///< stable identifier, like an address
  std::string name = "TQ-AC7-0042";          ///< advertised name
  std::int64_t rssi = -58;                   ///< reported with every advertisement
  PostIdentity identity;
  /// Value of "FFF4" before the post has notified anything (what the first read gets).
  Bytes initialReadValue;
  /// Requests whose checksum does not match this seed are ignored, unanswered.
  std::uint8_t checksumSeed = 0;
};

/// A charging post on the simulated radio: it advertises, accepts one connection at a
/// time, and answers every request frame written to "FFF3" on "FFF4".
class VirtualPost {
 public:
  explicit VirtualPost(PostSetup setup = {});

  const PostSetup& setup() const { return setup_; }
  const std::string& identifier() const { return setup_.identifier; }
  const std::string& name() const { return setup_.name; }
  std::int64_t rssi() const { return setup_.rssi; }
  void setRssi(std::int64_t rssi) { setup_.rssi = rssi; }
  std::uint8_t checksumSeed() const { return setup_.checksumSeed; }
  void setChecksumSeed(std::uint8_t seed) { setup_.checksumSeed = seed; }

  /// Whether scans hear it. A connected post does not advertise.
  bool advertising() const { return advertising_; }
  void setAdvertising(bool on) { advertising_ = on; }

  PostModel& model() { return model_; }
  const PostModel& model() const { return model_; }
  Faults& faults() { return faults_; }
  const Faults& faults() const { return faults_; }

  /// Whether some central holds a link to this post.
  bool connected() const;
  /// Loses the link to every central connected to this post, as if out of range.
  void dropLink();

  /// Every write the post received on "FFF3", as written.
  const std::vector<Bytes>& receivedWrites() const { return writes_; }
  /// Every complete answer the post sent, before it was cut into notifications.
  const std::vector<Bytes>& sentAnswers() const { return answers_; }

  /// Reads the request frames in one write and returns the answers, in order. Requests
  /// with a wrong start byte, a length past the write or a wrong checksum get none.
  std::vector<Bytes> handleWrite(const Bytes& write);

 private:
  Bytes answer(std::uint8_t cmd, const Bytes& body);

  PostSetup setup_;
  PostModel model_;
  Faults faults_;
  bool advertising_ = true;
  std::vector<Bytes> writes_;
  std::vector<Bytes> answers_;
};

}  // namespace tqble::sim
