// One state request through the client, from the call to its typed answer, on the
// simulated radio with every latency zero and the real clock: the SDK's own cost per
// request, which python/bench/state_request.py compares with the same request from Python.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>

#include "tqble/client/ChargerClient.h"
#include "tqble/platform/Log.h"
#include "tqble/sim/SimRadio.h"

namespace {

using namespace tqble;
using namespace std::chrono_literals;

// A client linked to the default post, past the manager's own first query.
ChargerClient& linkedClient() {
  static const auto client = [] {
    setLogSink([](std::string_view) {});
    sim::SimRadio::shared().timing() = sim::Timing{0ns, 0ns, 0ns, 0ns, 0ns, 0ns, 0ns, 0ns, 0ns, 0ns};
    auto made = std::make_unique<ChargerClient>();
    bool linked = false;
    made->connect("", [&](const auto& link) { linked = link.ok(); });
    made->runUntil([&] { return linked; }, 10s);
    bool first = false;
    made->queryChargerState([&](const auto&) { first = true; });
    made->runUntil([&] { return first; }, 10s);
    return made;
  }();
  return *client;
}

void BM_ClientStateRequestOnTheSimulator(benchmark::State& state) {
  ChargerClient& client = linkedClient();
  if (!client.ready()) return state.SkipWithError("no link to the simulated post");
  for (auto _ : state) {
    bool answered = false;
    client.queryChargerState([&](const Outcome<ChargerState>& o) { answered = o.ok(); });
    if (!client.runUntil([&] { return answered; }, 5s)) state.SkipWithError("no answer");
  }
  state.SetLabel("one request, call to answer");
}
BENCHMARK(BM_ClientStateRequestOnTheSimulator)->Unit(benchmark::kMicrosecond);

}  // namespace
