// A whole charging session: set the post's clock, start charging, follow the state for a
// few seconds, stop, and read the session back from the history.
#include <tqble/TQBle.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>

using namespace tqble;

namespace {

// Asks one request and runs the main queue until its outcome arrives.
template <typename T, typename Request>
T await(ChargerClient& client, Request request) {
  std::optional<Outcome<T>> outcome;
  request([&](const Outcome<T>& o) { outcome = o; });
  client.runUntil([&] { return outcome.has_value(); }, std::chrono::seconds(30));
  if (!outcome || !outcome->ok()) {
    std::fprintf(stderr, "failed: %s\n", outcome ? outcome->error().message.c_str() : "no answer");
    std::exit(1);
  }
  return outcome->value();
}

}  // namespace

int main() {
  setLogSink([](std::string_view) {});  // the SDK's own log lines are not for this screen
  ChargerClient client;
  const auto post =
      await<ChargerClient::PeripheralPtr>(client, [&](auto done) { client.connect("", done); });
  std::printf("connected to %s\n", post->name().c_str());

  const auto clock = await<SettingResult>(client, [&](auto done) { client.synchroTime(done); });
  std::printf("clock set: %s\n", clock.accepted() ? "yes" : "refused");
  const auto started = await<SettingResult>(client, [&](auto done) { client.startCharging(done); });
  if (!started.accepted()) {
    std::fprintf(stderr, "the post refused to start (is a car plugged in?)\n");
    return 1;
  }
  std::printf("charging\n");
  for (int i = 0; i < 3; ++i) {
    client.runUntil([] { return false; }, std::chrono::seconds(1));
    const auto state =
        await<ChargerState>(client, [&](auto done) { client.queryChargerState(done); });
    std::printf("  %s: %.3f kWh, %.1f A, %lld s\n", name(state.gunState), state.kilowattHours,
                state.amperes, static_cast<long long>(state.duration.count()));
  }
  const auto stopped = await<SettingResult>(client, [&](auto done) { client.stopCharging(done); });
  std::printf("stopped: %s\n", stopped.accepted() ? "yes" : "refused");

  const auto history =
      await<ChargingHistory>(client, [&](auto done) { client.queryHistory(done); });
  if (!history.empty()) {
    const auto& last = history.back();
    std::printf("last session %u: %s to %s, %.3f kWh\n", last.serial, isoUtc(last.start).c_str(),
                isoUtc(last.end).c_str(), last.kilowattHours);
  }
  client.disconnect();
  return 0;
}
