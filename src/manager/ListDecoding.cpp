// Charging history, cumulative energy and error log.
#include "manager/DecodingSupport.h"
#include "tqble/AnswerDecoding.h"

namespace tqble::decode {
namespace {

constexpr std::size_t kFirstEntryChar = 24;     // byte 12
constexpr std::size_t kHistoryEntryChars = 38;  // 19 bytes
constexpr std::size_t kErrorEntryChars = 16;    // 8 bytes

}  // namespace

std::vector<TQBleChargeHistory> chargingHistory(const Bytes& answer) {
  using detail::cut;
  using detail::hexField;
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  // The entry count follows from the length, so the list never runs off the answer; one
  // too short for the header is a range error like any other short cut.
  const std::string rest = detail::cutFrom(hex, kFirstEntryChar);
  cut(hex, 20, 4);  // an entry count the post sends; the length decides instead

  // A trailing partial entry is ignored.
  const auto count = static_cast<std::uint32_t>(rest.size() / kHistoryEntryChars);
  std::vector<TQBleChargeHistory> list;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t at = i * static_cast<std::uint32_t>(kHistoryEntryChars);
    const auto serial = detail::printf("%llu", detail::ull(hexField(rest, at, 8)));
    const std::uint64_t energy = hexField(rest, at + 8, 4);
    const std::string start = detail::postTimeAt(rest, at + 12);
    const std::string end = detail::postTimeAt(rest, at + 20);
    const std::int32_t seconds = ZDataCoverTool::coverToIntFrome4BytesHexStr(cut(rest, at + 28, 8));

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
  return ZDataCoverTool::coverToIntFrome4BytesHexStr(detail::cut(hex, 16, 8));
}

std::vector<TQBleErrorListLog> errorLog(const Bytes& answer) {
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  const std::uint64_t count = detail::hexField(hex, 20, 2);
  const std::string rest = detail::cutFrom(hex, 22);

  // The count is trusted: one larger than the entries present runs off the end.
  std::vector<TQBleErrorListLog> list;
  for (std::int32_t i = 0; static_cast<std::uint64_t>(i) < count; ++i) {
    const std::size_t at = static_cast<std::size_t>(i) * kErrorEntryChars;
    const std::string date = detail::postTimeAt(rest, at);
    const std::uint64_t code = detail::hexField(rest, at + 8, 2);

    TQBleErrorListLog entry;
    entry.date = date;
    entry.errorCode = code;
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace tqble::decode
