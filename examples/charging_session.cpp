// A whole charging session: set the post's clock, start charging, follow the state for a
// few seconds, stop, and read the session back from the history. Blocking style: each
// request's handle goes to client.wait(), which runs the main queue until it has ended.
#include <tqble/TQBle.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

using namespace tqble;

namespace {

// The answer, or the reason there is none and exit status 1.
template <typename T>
T valueOf(const Outcome<T>& outcome) {
  if (!outcome.ok()) {
    std::fprintf(stderr, "failed: %s\n", outcome.error().message.c_str());
    std::exit(1);
  }
  return outcome.value();
}

}  // namespace

int main() {
  setLogSink([](std::string_view) {});  // the SDK's own log lines are not for this screen
  ChargerClient client;
  const auto post = valueOf(client.wait(client.connect("")));  // the first post heard
  std::printf("connected to %s\n", post->name().c_str());

  const auto clock = valueOf(client.wait(client.synchroTime()));
  std::printf("clock set: %s\n", clock.accepted() ? "yes" : "refused");
  const auto started = valueOf(client.wait(client.startCharging()));
  if (!started.accepted()) {
    std::fprintf(stderr, "the post refused to start (is a car plugged in?)\n");
    return 1;
  }
  std::printf("charging\n");
  for (int i = 0; i < 3; ++i) {
    client.runUntil([] { return false; }, std::chrono::seconds(1));
    const auto state = valueOf(client.wait(client.queryChargerState()));
    std::printf("  %s: %.3f kWh, %.1f A, %lld s\n", name(state.gunState), state.kilowattHours,
                state.amperes, static_cast<long long>(state.duration.count()));
  }
  const auto stopped = valueOf(client.wait(client.stopCharging()));
  std::printf("stopped: %s\n", stopped.accepted() ? "yes" : "refused");

  const auto history = valueOf(client.wait(client.queryHistory()));
  if (!history.empty()) {
    const auto& last = history.back();
    std::printf("last session %u: %s to %s, %.3f kWh\n", last.serial, isoUtc(last.start).c_str(),
                isoUtc(last.end).c_str(), last.kilowattHours);
  }
  client.disconnect();
  return 0;
}
