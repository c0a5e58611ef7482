// Setting acknowledgements: time, volume, reservation and start charging.
#include "manager/DecodingSupport.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/BLESDKConst.h"

namespace tqble::decode {

TQBleSetResult setResult(const Bytes& answer) {
  TQBleSetResult result;
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  if (hex.size() > 17) {
    // Any status other than exactly 00 or 01 leaves the default, which is success.
    const std::string status = detail::cut(hex, protocol::ack::status);
    if (status == "01") {
      result.resultType = TQSetCmdFailure;
    } else if (status == "00") {
      result.resultType = TQSetCmdSuccess;
    }
  } else {
    result.resultType = TQSetCmdFailure;  // a bare header or less
  }
  return result;
}

}  // namespace tqble::decode
