#pragma once

// The twelve commands as every suite sees them, in the order of a charging session: how
// to issue each on the manager and through the client, the pending tag and command code
// it records, its exact request frame, whether it clears the gathering buffer, the post
// state that makes its answer telling, how many notifications that answer takes, and how
// to check what was delivered. Rows run in this order against one post, each on the state
// the rows before it left.

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <optional>
#include <ostream>
#include <span>
#include <string>

#include "tqble/AnswerDecoding.h"
#include "tqble/TQBleManager.h"
#include "tqble/client/ChargerClient.h"
#include "tqble/sim/VirtualPost.h"

namespace tqble::test {

/// What a row's check gets: the post, the manager, the whole answer and the record of the
/// last delegate call of that answer.
struct Delivered {
  const sim::VirtualPost& post;
  TQBleManager& manager;
  const Bytes& answer;
  const TQBleDataModel& record;
};

/// A client request's end: no error and the answer's frame, or its error.
using ClientDone = std::function<void(const std::optional<ClientError>& error, const Bytes& frame)>;

struct CommandRow {
  const char* name;  ///< the manager's operation
  std::int64_t tag;  ///< cmdType while it is pending
  std::uint8_t code;
  void (*issue)(TQBleManager&, const TQErrorHandler&);
  void (*ask)(ChargerClient&, ClientDone);
  /// The request as issued at 1'700'000'000.2 s (only the time sync carries the clock).
  const char* frame;        ///< with status 0 and seed 0
  const char* seededFrame;  ///< with status 0x07 and seed 0x5A
  bool clearsBuffer;
  void (*prepare)(sim::PostModel&);  ///< may be null
  std::size_t notifications;         ///< of the post's answer: one delegate call each
  std::int64_t resultType;           ///< of the last delegate record; -1: no result
  bool (*check)(const Delivered&);
};

namespace rows {
// The synchronised clock is the process's own; the post keeps it to the second.
inline bool clockSet(const Delivered& d) {
  return std::abs(d.post.model().clock() - std::time(nullptr)) <= 2;
}
inline bool charging(const Delivered& d) {
  return d.record.chargingData && d.record.chargingData->gunStatus == "正在充电中";
}
template <auto Request, typename... Args>
void ask(ChargerClient& c, ClientDone done, Args... args) {
  (c.*Request)(args..., [done](const auto& o) {
    done(o.ok() ? std::nullopt : std::optional<ClientError>(o.error()), o.frame());
  });
}
}  // namespace rows

// clang-format off
inline const CommandRow kCommandRows[] = {
    {"synchroTimeWithError", 1, 0xB0, [](auto& m, auto& e) { m.synchroTimeWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::synchroTime>(c, d); },
     "68 B0 00 00 04 00 00 1B 00 F1 53 65", "68 B0 07 00 04 00 00 46 00 F1 53 65", false,
     nullptr, 1, 0, rows::clockSet},
    {"querySystemInfoWithError", 2, 0xB1, [](auto& m, auto& e) { m.querySystemInfoWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::querySystemInfo>(c, d); },
     "68 B1 00 00 01 00 00 D8 00", "68 B1 00 00 01 00 00 D8 00", true,
     [](sim::PostModel& p) { p.plugIn(); }, 4, -1,
     [](const Delivered& d) { return d.manager.systemInfoModelList().back()->content == "插枪未充电"; }},
    {"setVolumeWithVolumeSize", 3, 0xB2, [](auto& m, auto& e) { m.setVolumeWithVolumeSize(35, e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::setVolume>(c, d, std::int64_t{35}); },
     "68 B2 00 00 01 00 00 EE 35", "68 B2 07 00 01 00 00 B3 35", false,
     nullptr, 1, 0, [](const Delivered& d) { return d.post.model().volume() == 35; }},
    {"orderChargerWithStartHour", 4, 0xB3, [](auto& m, auto& e) { m.orderChargerWithStartHour(22, 30, 6, 0, e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::reserve>(c, d, std::int64_t{22}, std::int64_t{30}, std::int64_t{6}, std::int64_t{0}); },
     "68 B3 00 00 05 00 00 D1 01 16 1E 06 00", "68 B3 07 00 05 00 00 8C 01 16 1E 06 00", false,
     nullptr, 1, 0, [](const Delivered& d) {
       const auto& r = d.post.model().reservation();
       return r && r->startHour == 22 && r->startMinute == 30 && r->endHour == 6 && r->endMinute == 0; }},
    {"startChargingWithError", 5, 0xB4, [](auto& m, auto& e) { m.startChargingWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::startCharging>(c, d); },
     "68 B4 00 00 02 00 00 DE 00 00", "68 B4 07 00 02 00 00 83 00 00", false,
     nullptr, 1, 0, [](const Delivered& d) { return d.post.model().gunState() == sim::GunState::Charging; }},
    {"queryChargerStateWithError", 6, 0xB5, [](auto& m, auto& e) { m.queryChargerStateWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::queryChargerState>(c, d); },
     "68 B5 00 00 01 00 00 DC 00", "68 B5 07 00 01 00 00 81 00", true,
     nullptr, 2, -1, rows::charging},
    {"queryChargingDataWithError", 6, 0xB5, [](auto& m, auto& e) { m.queryChargingDataWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::queryChargingData>(c, d); },
     "68 B5 00 00 01 00 00 DC 00", "68 B5 07 00 01 00 00 81 00", false,
     nullptr, 2, -1, rows::charging},
    {"stopChargeWithError", 7, 0xB6, [](auto& m, auto& e) { m.stopChargeWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::stopCharging>(c, d); },
     "68 B6 00 00 01 00 00 DF 00", "68 B6 07 00 01 00 00 82 00", false,
     nullptr, 1, 0, [](const Delivered& d) { return d.post.model().history().size() == 1; }},
    {"queryHistoryChargingListWithError", 8, 0xB7, [](auto& m, auto& e) { m.queryHistoryChargingListWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::queryHistory>(c, d); },
     "68 B7 00 00 01 00 00 DE 00", "68 B7 07 00 01 00 00 83 00", false,
     nullptr, 2, -1, [](const Delivered& d) {  // decoded, then dropped: it reaches only the tap
       return !d.record.chargingData && decode::chargingHistory(d.answer).size() == 1; }},
    {"queryCumulationElecQuantityWithError", 9, 0xB8, [](auto& m, auto& e) { m.queryCumulationElecQuantityWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::queryCumulativeEnergy>(c, d); },
     "68 B8 00 00 01 00 00 D1 00", "68 B8 07 00 01 00 00 8C 00", false,
     nullptr, 1, -1, [](const Delivered& d) {
       return static_cast<std::uint32_t>(decode::cumulativeEnergy(d.answer)) == d.post.model().cumulativeEnergy(); }},
    {"queryHistoryErrorLogListWithError", 15, 0x34, [](auto& m, auto& e) { m.queryHistoryErrorLogListWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::queryErrorLog>(c, d); },
     "68 34 00 00 03 00 00 5E 01 00 00", "68 34 07 00 03 00 00 03 01 00 00", false,
     [](sim::PostModel& p) { p.raiseFault(sim::FaultOverVoltage); }, 1, -1,
     [](const Delivered& d) { return decode::errorLog(d.answer).at(0).errorCode == 2; }},
    {"runningDiagnosticInfoWithError", 13, 0x32, [](auto& m, auto& e) { m.runningDiagnosticInfoWithError(e); },
     [](ChargerClient& c, ClientDone d) { rows::ask<&ChargerClient::queryDiagnostics>(c, d); },
     "68 32 00 00 01 00 00 5B 00", "68 32 07 00 01 00 00 06 00", false,
     nullptr, 4, -1, [](const Delivered& d) {  // goes to an empty handler: only the tap sees it
       return !d.record.chargingData && decode::runningDiagnosis(d.answer).errorInfo == "过压"; }},
};
// clang-format on

/// How a client request ended: its error, or none and the answer's frame.
struct ClientEnd {
  std::optional<ClientError> error;
  Bytes frame;
};

/// Asks `row` through `client`, running the main queue until it ends (at most 30 s).
inline ClientEnd askRow(ChargerClient& client, const CommandRow& row) {
  std::optional<ClientEnd> end;
  row.ask(client, [&](const auto& error, const Bytes& frame) { end = ClientEnd{error, frame}; });
  client.runUntil([&] { return end.has_value(); }, std::chrono::seconds(30));
  return end.value_or(ClientEnd{ClientError{ClientErrorKind::NotFound, 0, "never ended"}, {}});
}

/// GoogleTest prints a row by its name, never by its bytes.
inline void PrintTo(const CommandRow& row, std::ostream* os) { *os << row.name; }

/// The row of the manager operation `name`.
inline const CommandRow& commandRow(std::string_view name) {
  for (const auto& row : kCommandRows)
    if (name == row.name) return row;
  std::abort();
}

}  // namespace tqble::test
