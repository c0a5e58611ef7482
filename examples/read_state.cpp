// Connects to the first post heard and prints its charger state.
#include <tqble/TQBle.h>

#include <cstdio>

using namespace tqble;

int main() {
  ChargerClient client;  // the simulated radio unless TQBLE_BACKEND names another
  int status = 1;
  client.connect("", [&](const Outcome<ChargerClient::PeripheralPtr>& link) {
    if (!link.ok()) {
      std::fprintf(stderr, "connect: %s\n", link.error().message.c_str());
      return client.stop();
    }
    std::printf("connected to %s\n", link.value()->name().c_str());
    client.queryChargerState([&](const Outcome<ChargerState>& state) {
      if (state.ok()) {
        const ChargerState& s = state.value();
        std::printf("gun: %s, fault: %s\n", name(s.gunState),
                    s.fault ? name(s.fault->kind) : "none");
        std::printf("%.1f V, %.1f A, %.3f kWh in %lld s\n", s.volts, s.amperes, s.kilowattHours,
                    static_cast<long long>(s.duration.count()));
        status = 0;
      } else {
        std::fprintf(stderr, "state: %s\n", state.error().message.c_str());
      }
      client.stop();
    });
  });
  client.run();  // every callback arrives here, on the main queue
  return status;
}
