#include "DecodedAnswer.h"

#include "tqble/AnswerDecoding.h"

namespace tqble::cli {

Json decodedJson(AnswerKind kind, const Bytes& answer, const TQBleDataModel* model,
                 const std::vector<ZRunStateModel>& rows) {
  switch (kind) {
    case AnswerKind::History:
      return toJson(decode::chargingHistory(answer));
    case AnswerKind::Energy:
      return toJson(answers::cumulativeEnergy(answer));
    case AnswerKind::ErrorLog:
      return toJson(decode::errorLog(answer));
    case AnswerKind::Diagnosis:
      return toJson(decode::runningDiagnosis(answer));
    case AnswerKind::SystemInfo: {
      Json list = Json::array();
      for (const auto& row : rows) {
        list.push_back(Json{{"title", text(row.title)}, {"content", text(row.content)}});
      }
      return list;
    }
    case AnswerKind::Result:
      return model && model->result ? Json{{"resultType", model->result->resultType}}
                                    : Json(nullptr);
    case AnswerKind::ChargerState:
      break;
  }
  return model && model->chargingData ? chargeFields(*model->chargingData) : Json(nullptr);
}

Json typedDecodedJson(AnswerKind kind, const Bytes& answer) {
  switch (kind) {
    case AnswerKind::Result: return typedJson(answers::settingResult(answer));
    case AnswerKind::ChargerState: return typedJson(answers::chargerState(answer));
    case AnswerKind::SystemInfo: return typedJson(answers::systemInfo(answer));
    case AnswerKind::History: return typedJson(answers::chargingHistory(answer));
    case AnswerKind::Energy: return typedJson(answers::cumulativeEnergy(answer));
    case AnswerKind::ErrorLog: return typedJson(answers::errorLog(answer));
    case AnswerKind::Diagnosis: break;
  }
  return typedJson(answers::diagnostics(answer));
}

}  // namespace tqble::cli
