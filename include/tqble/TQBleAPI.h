#pragma once

namespace tqble {

/// An empty public class, kept as a symbol of the SDK.
class TQBleAPI {};

}  // namespace tqble
