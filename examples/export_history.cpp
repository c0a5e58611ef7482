// Writes the post's charging sessions as CSV on standard output.
#include <tqble/TQBle.h>

#include <cstdio>

using namespace tqble;

int main() {
  setLogSink([](std::string_view) {});
  ChargerClient client;
  int status = 1;
  client.connect("", [&](const Outcome<ChargerClient::PeripheralPtr>& link) {
    if (!link.ok()) return client.stop();
    client.queryHistory([&](const Outcome<ChargingHistory>& history) {
      if (history.ok()) {
        std::printf("serial,start_utc,end_utc,duration_s,energy_kWh\n");
        for (const ChargingSession& s : history.value()) {
          std::printf("%u,%s,%s,%lld,%.3f\n", s.serial, isoUtc(s.start).c_str(),
                      isoUtc(s.end).c_str(), static_cast<long long>(s.duration.count()),
                      s.kilowattHours);
        }
        status = 0;
      } else {
        std::fprintf(stderr, "history: %s\n", history.error().message.c_str());
      }
      client.stop();
    });
  });
  client.run();
  return status;
}
