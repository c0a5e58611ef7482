// Lists the posts heard within two seconds: name, identifier and signal strength.
#include <tqble/TQBle.h>

#include <chrono>
#include <cstdio>
#include <set>
#include <string>

using namespace tqble;

int main() {
  ChargerClient client;
  std::set<std::string> heard;  // a post advertises again and again
  client.scan([&](const ChargerClient::PeripheralPtr& post, std::int64_t rssi) {
    if (heard.insert(post->identifier()).second) {
      std::printf("%s  %s  %lld dBm\n", post->name().c_str(), post->identifier().c_str(),
                  static_cast<long long>(rssi));
    }
  });
  client.runUntil([] { return false; }, std::chrono::seconds(2));
  client.stopScan();
  std::printf("%zu post(s)\n", heard.size());
  return heard.empty() ? 1 : 0;
}
