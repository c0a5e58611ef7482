#pragma once

// An answer's values as JSON, for `tqble decode` and `tqble capture` alike: the typed
// answer, and what the manager made of it.

#include <vector>

#include "CommandCatalogue.h"

namespace tqble::cli {

/// What the manager made of `answer`: the result or state record it handed to the delegate
/// (`model`, may be null), the ten system-information rows, or, for the history, energy,
/// error-log and diagnostics answers the manager decodes and drops, what decoding yields.
/// @throws std::out_of_range when the answer is too short for its decoder.
Json decodedJson(AnswerKind kind, const Bytes& answer, const TQBleDataModel* model,
                 const std::vector<ZRunStateModel>& rows);

/// The typed answer `answer` holds, as `tqble run` prints it.
/// @throws std::out_of_range when the answer is too short (or, for a state, of another length).
Json typedDecodedJson(AnswerKind kind, const Bytes& answer);

}  // namespace tqble::cli
