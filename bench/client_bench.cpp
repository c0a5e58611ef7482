// The client on the simulated radio with every latency zero and the real clock: one state
// request from the call to its typed answer (the SDK's own cost per request, which
// python/bench/state_request.py compares with the same request from Python), and the heap
// over 20,000 mixed requests.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <chrono>
#include <memory>

#include "tqble/client/ChargerClient.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace {

using namespace tqble;
using namespace std::chrono_literals;

// A client linked to the default post, past the manager's own first query.
ChargerClient& linkedClient() {
  static const auto client = [] {
    setLogSink([](std::string_view) {});
    sim::SimRadio::shared().timing() =
        sim::Timing{0ns, 0ns, 0ns, 0ns, 0ns, 0ns, 0ns, 0ns, 0ns, 0ns};
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

// Heap in use: chunks handed out (headers included) and mapped blocks.
std::size_t heapInUse() {
  const auto m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

// Heap the simulated post holds for its record of every write and answer (which tests
// read): the simulator's, not the SDK's.
std::size_t postRecords(const sim::VirtualPost& post) {
  const auto chunk = [](const void* p) {
    if (!p) return std::size_t{0};
    // The chunk's size word sits just before it; bit 1 marks a mapped chunk, whose header
    // is two words where a heap chunk's is one.
    const std::size_t word = static_cast<const std::size_t*>(p)[-1];
    return malloc_usable_size(const_cast<void*>(p)) + (word & 2 ? 2 : 1) * sizeof(std::size_t);
  };
  std::size_t bytes = chunk(post.receivedWrites().data()) + chunk(post.sentAnswers().data());
  for (const auto& w : post.receivedWrites()) bytes += chunk(w.data());
  for (const auto& a : post.sentAnswers()) bytes += chunk(a.data());
  return bytes;
}

// One request of every kind the client offers, asked together; false unless each answered.
constexpr int kKinds = 12;
bool askEveryKind(ChargerClient& client) {
  int ended = 0, answered = 0;
  const auto count = [&](const auto& outcome) {
    ++ended;
    answered += outcome.ok();
  };
  client.synchroTime(count);
  client.querySystemInfo(count);
  client.setVolume(7, count);
  client.reserve(22, 0, 6, 30, count);
  client.startCharging(count);
  client.stopCharging(count);
  client.queryChargerState(count);
  client.queryChargingData(count);
  client.queryHistory(count);
  client.queryCumulativeEnergy(count);
  client.queryErrorLog(count);
  client.queryDiagnostics(count);
  return client.runUntil([&] { return ended == kKinds; }, 10s) && answered == kKinds;
}

// Runs the queue until every request time-out armed so far has fired (each is due 5 s
// after its request, answered or not), so that the heap holds only what stays.
void settle(ChargerClient& client) {
  client.runUntil([] { return false; }, ClientOptions{}.requestTimeout + 500ms);
}

// `requests` mixed requests, a round of every kind at a time; false when one failed.
bool mixedRequests(ChargerClient& client, int requests) {
  for (int asked = 0; asked < requests; asked += kKinds) {
    if (!askEveryKind(client)) return false;
  }
  return true;
}

// The heap growth per 1,000 requests over 20,000 mixed ones after a warm-up, once every
// time-out has fired: the SDK's (sdk_B_per_1k: the heap's less the simulated post's
// records), the heap's and the records'. Right after the requests, before that, the
// time-outs still queued (timers_after_burst) and what the SDK's heap held then
// (burst_kB).
void BM_ClientMemoryOverMixedRequests(benchmark::State& state) {
  constexpr int kWarmUp = 2'000, kMeasured = 20'000;
  ChargerClient& client = linkedClient();
  if (!client.ready()) return state.SkipWithError("no link to the simulated post");
  sim::VirtualPost& post = *sim::SimRadio::shared().posts().front();
  // No car plugged in: starts are refused, so no session joins the post's history and its
  // answer keeps its size.
  post.model().unplug();
  settle(client);  // the time-outs of the requests before this figure
  const auto sdkHeap = [&post] {
    return static_cast<double>(heapInUse()) - static_cast<double>(postRecords(post));
  };
  for (auto _ : state) {
    if (!mixedRequests(client, kWarmUp)) return state.SkipWithError("a warm-up request failed");
    settle(client);
    const double heap = static_cast<double>(heapInUse()), sdk = sdkHeap();
    const double records = static_cast<double>(postRecords(post));
    if (!mixedRequests(client, kMeasured)) return state.SkipWithError("a request failed");
    state.counters["timers_after_burst"] = static_cast<double>(MainQueue::main().pending());
    state.counters["burst_kB"] = (sdkHeap() - sdk) / 1000;
    settle(client);
    const auto perThousand = [](double growth) { return growth * 1000 / kMeasured; };
    state.counters["sdk_B_per_1k"] = perThousand(sdkHeap() - sdk);
    state.counters["heap_B_per_1k"] = perThousand(static_cast<double>(heapInUse()) - heap);
    state.counters["post_records_B_per_1k"] =
        perThousand(static_cast<double>(postRecords(post)) - records);
  }
  state.counters["info_rows"] = static_cast<double>(client.manager().systemInfoModelList().size());
  state.counters["peripherals"] = static_cast<double>(client.manager().allPeripheral().size());
  state.SetLabel("heap growth per 1,000 mixed requests, after a warm-up of 2,000");
}
BENCHMARK(BM_ClientMemoryOverMixedRequests)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace
