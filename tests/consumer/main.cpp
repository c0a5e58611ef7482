// Builds against the installed headers and library: frames one request.
#include <tqble/TQBle.h>

#include <cstdio>

int main() {
  tqble::TQBleManager::useBackend("sim");
  const auto frame =
      tqble::TQBleManager::shareManager()->setDataWithCmd(0xB5, 0, tqble::Bytes{0}, 0);
  std::printf("%s\n", tqble::ZDataCoverTool::coverFromDataToHexStr(frame).c_str());
  return frame.size() == 9 ? 0 : 1;
}
