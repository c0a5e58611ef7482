// Charging history, cumulative energy and error log.
#include "manager/DecodingSupport.h"
#include "tqble/AnswerDecoding.h"

namespace tqble::decode {
namespace {

namespace h = protocol::history;
namespace e = protocol::error_log;
constexpr std::size_t kHistoryEntryChars = 2 * h::kEntryLength;
constexpr std::size_t kErrorEntryChars = 2 * e::kEntryLength;

}  // namespace

std::vector<TQBleChargeHistory> chargingHistory(const Bytes& answer) {
  using detail::cut;
  using detail::hexField;
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  // The entry count follows from the length, so the list never runs off the answer; one
  // too short for the header is a range error like any other short cut.
  const std::string rest = detail::cutFrom(hex, 2 * h::kFirstEntry);
  cut(hex, h::count);  // an entry count the post sends; the length decides instead

  // A trailing partial entry is ignored.
  const auto count = static_cast<std::uint32_t>(rest.size() / kHistoryEntryChars);
  std::vector<TQBleChargeHistory> list;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t at = i * static_cast<std::uint32_t>(kHistoryEntryChars);
    const auto serial = detail::printf("%llu", detail::ull(hexField(rest, h::serial, at)));
    const std::uint64_t energy = hexField(rest, h::energy, at);
    const std::string start = detail::postTimeAt(rest, at + h::start.hexFrom());
    const std::string end = detail::postTimeAt(rest, at + h::end.hexFrom());
    const std::int32_t seconds = ZDataCoverTool::coverToIntFrome4BytesHexStr(cut(rest, h::duration, at));

    TQBleChargeHistory entry;
    entry.serialNumber = serial;
    entry.elecQuantity = energy;
    entry.startTime = start;
    entry.endTime = end;
    entry.duration = static_cast<std::uint64_t>(std::int64_t{seconds});  // sign kept
    list.push_back(std::move(entry));
  }
  return list;
}

std::int32_t cumulativeEnergy(const Bytes& answer) {
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  return ZDataCoverTool::coverToIntFrome4BytesHexStr(detail::cut(hex, protocol::cumulation::energy));
}

std::vector<TQBleErrorListLog> errorLog(const Bytes& answer) {
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  const std::uint64_t count = detail::hexField(hex, e::count);
  const std::string rest = detail::cutFrom(hex, 2 * e::kFirstEntry);

  // The count is trusted: one larger than the entries present runs off the end.
  std::vector<TQBleErrorListLog> list;
  for (std::int32_t i = 0; static_cast<std::uint64_t>(i) < count; ++i) {
    const std::size_t at = static_cast<std::size_t>(i) * kErrorEntryChars;
    const std::string date = detail::postTimeAt(rest, at + e::time.hexFrom());
    const std::uint64_t code = detail::hexField(rest, e::code, at);

    TQBleErrorListLog entry;
    entry.date = date;
    entry.errorCode = code;
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace tqble::decode
