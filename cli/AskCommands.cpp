// The subcommands that talk to a post through the client: scan, run, survey, watch and
// history. Each connects, asks, prints and closes the link; failures leave one line on
// stderr and an exit status by kind.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <set>

#include "CommandCatalogue.h"
#include "Subcommands.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::cli {

const char kPostOptions[] =
    "  --backend NAME   the radio: sim (the default, a simulated post) or bluez\n"
    "  --log            writes the SDK's log lines to stderr\n"
    "exit status: 0 answered, 2 usage, 3 not connected (post not found, connection failed),\n"
    "  4 write failed, 5 timed out, 6 link lost, 7 malformed answer, 1 anything else\n";

const char kScanUsage[] =
    "usage: tqble scan [--seconds N] [--backend NAME]\n"
    "  Lists the posts heard within N seconds (default 3), once each: name, identifier, RSSI.\n";
const char kRunUsage[] =
    "usage: tqble run POST COMMAND [ARGUMENTS] [--table] [--raw] [--backend NAME]\n"
    "  Connects to POST (a name or identifier as scan prints it; '-' for the first post heard),\n"
    "  sends COMMAND and prints its typed answer as JSON (units in the field names, times UTC\n"
    "  ISO 8601, codes as names beside their raw values), or as aligned columns with --table.\n"
    "  --raw prints the manager's record instead: voltage 0.1 V, current (electric) 0.1 A,\n"
    "  energy Wh, durations s, local time texts.\n"
    "  commands (long or short name):";
const char kSurveyUsage[] =
    "usage: tqble survey POST [--raw] [--backend NAME]\n"
    "  Every read command (info, state, history, energy, errors, diagnostics), one JSON document;\n"
    "  a command that fails shows {\"error\": ...} and sets the exit status.\n";
const char kWatchUsage[] =
    "usage: tqble watch POST [--every S] [--raw] [--backend NAME]\n"
    "  Prints the charger state every S seconds (default 2), one JSON line each, until\n"
    "  interrupted (Ctrl-C), then closes the link and exits 0.\n";
const char kHistoryUsage[] =
    "usage: tqble history POST [--csv] [--raw] [--backend NAME]\n"
    "  The post's charging sessions: JSON, or with --csv the columns start, end, duration_s,\n"
    "  energy_kWh (times UTC ISO 8601), with a header line, ready for a spreadsheet.\n";

namespace {

using namespace std::chrono_literals;

std::atomic<bool> interrupted = false;

struct Options {
  std::vector<std::string> words;
  std::string backend = "sim";
  bool log = false, table = false, csv = false, raw = false;
  double seconds = 3, every = 2;
};

double parseSeconds(const std::string& option, const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value > 0) || value > 86400) {
    throw UsageError(option + " must be a number of seconds above 0, not '" + text + "'");
  }
  return value;
}

// Reads the options `allowed` names (flags and valued ones alike) and the other words.
Options parseOptions(const std::vector<std::string>& args, const std::set<std::string>& allowed) {
  Options o;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (!arg.starts_with("--") || arg == "--") {
      o.words.push_back(arg);
      continue;
    }
    if (!allowed.contains(arg)) throw UsageError("unknown option '" + arg + "'");
    const bool valued = arg == "--backend" || arg == "--seconds" || arg == "--every";
    if (valued && i + 1 == args.size()) throw UsageError(arg + " needs a value");
    if (arg == "--backend") o.backend = args[++i];
    if (arg == "--seconds") o.seconds = parseSeconds(arg, args[++i]);
    if (arg == "--every") o.every = parseSeconds(arg, args[++i]);
    o.log |= arg == "--log";
    o.table |= arg == "--table";
    o.csv |= arg == "--csv";
    o.raw |= arg == "--raw";
  }
  return o;
}

int exitStatus(ClientErrorKind kind) {
  switch (kind) {
    case ClientErrorKind::NotConnected:
    case ClientErrorKind::NotFound:
    case ClientErrorKind::ConnectFailed:
      return 3;
    case ClientErrorKind::WriteFailed:
      return 4;
    case ClientErrorKind::TimedOut:
      return 5;
    case ClientErrorKind::LinkLost:
      return 6;
    case ClientErrorKind::Malformed:
      return 7;
    case ClientErrorKind::Cancelled:
      break;  // the commands cancel nothing
  }
  return 1;
}

/// A failure of the post's side: message and exit status.
struct PostFailure {
  ClientError error;
};

// The manager on the chosen backend and a client on it, the SDK's log silenced unless asked.
class Session {
 public:
  explicit Session(const Options& o) {
    const auto names = ble::backendNames();
    if (std::find(names.begin(), names.end(), o.backend) == names.end()) {
      std::string known;
      for (const auto& n : names) known += (known.empty() ? "" : ", ") + n;
      throw UsageError("unknown backend '" + o.backend + "' (built in: " + known + ")");
    }
    TQBleManager::useBackend(o.backend);
    setLogSink(o.log ? LogSink([](std::string_view line) {
      std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    })
                     : LogSink([](std::string_view) {}));
    client.emplace();
    client->setErrorHandler(
        [](const ClientError& e) { std::fprintf(stderr, "%s\n", e.message.c_str()); });
  }
  ~Session() {
    if (client->ready()) {
      client->disconnect();
      // Until the stack reports the link closed, and no longer.
      auto& manager = client->manager();
      client->runUntil([&manager] { return manager.connectedPheral() == nullptr; }, 2s);
    }
  }

  /// Connects to `post` ("-": the first post heard).  @throws PostFailure.
  void connect(const std::string& post) {
    wait<ChargerClient::PeripheralPtr>(
        [&](auto done) { client->connect(post == "-" ? "" : post, done); });
  }

  /// Runs one request to its end.  @throws PostFailure.
  template <typename T>
  T wait(const std::function<void(Completion<T>)>& request) {
    std::optional<Outcome<T>> outcome;
    request([&outcome](const Outcome<T>& o) { outcome = o; });
    client->runUntil([&] { return outcome.has_value(); }, 60s);
    if (!outcome) throw PostFailure{{ClientErrorKind::TimedOut, 0, "no answer"}};
    if (!outcome->ok()) throw PostFailure{outcome->error()};
    return outcome->value();
  }

  Json ask(const Command& command, bool raw, const Args& args = {}) {
    return wait<Json>(
        [&](Completion<Json> done) { command.ask(*client, args, raw, std::move(done)); });
  }

  std::optional<ChargerClient> client;
};

void printValue(const Json& value) {
  std::printf("%s", value.is_string() ? value.get<std::string>().c_str() : value.dump().c_str());
}

// An object as "key  value" lines, a list of objects as columns under their keys.
void printTable(const Json& json) {
  if (json.is_object()) {
    std::size_t width = 0;
    for (const auto& [key, _] : json.items()) width = std::max(width, key.size());
    for (const auto& [key, value] : json.items()) {
      std::printf("%s", padded(key, width + 2).c_str());
      printValue(value);
      std::printf("\n");
    }
    return;
  }
  if (json.empty()) return;
  std::vector<std::string> keys;
  for (const auto& [key, _] : json.front().items()) keys.push_back(key);
  std::vector<std::vector<std::string>> rows{keys};
  for (const auto& entry : json) {
    rows.emplace_back();
    for (const auto& key : keys) {
      const Json& value = entry[key];
      rows.back().push_back(value.is_string() ? value.get<std::string>() : value.dump());
    }
  }
  std::vector<std::size_t> widths(keys.size(), 0);
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], displayWidth(row[i]));
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i)
      line += i + 1 < row.size() ? padded(row[i], widths[i] + 2) : row[i];
    std::printf("%s\n", line.c_str());
  }
}

// Runs `body` and turns what it throws into the subcommand's message and exit status;
// --help anywhere prints the usage instead.
int guarded(const char* name, const std::vector<std::string>& args,
            const std::function<void(std::FILE*)>& usage, const std::function<int()>& body) {
  if (std::find(args.begin(), args.end(), "--help") != args.end()) {
    usage(stdout);
    return 0;
  }
  try {
    return body();
  } catch (const UsageError& e) {
    std::fprintf(stderr, "tqble %s: %s (see 'tqble help %s')\n", name, e.what(), name);
    return 2;
  } catch (const PostFailure& f) {
    std::fprintf(stderr, "tqble %s: %s: %s\n", name, describe(f.error.kind),
                 f.error.message.c_str());
    return exitStatus(f.error.kind);
  }
}

std::function<void(std::FILE*)> textUsage(const char* usage) {
  return [usage](std::FILE* out) { std::fprintf(out, "%s%s", usage, kPostOptions); };
}

const std::string& onlyPost(const Options& o, std::size_t extra = 0) {
  if (o.words.empty()) throw UsageError("missing POST");
  if (o.words.size() > 1 + extra)
    throw UsageError("unexpected argument '" + o.words[1 + extra] + "'");
  return o.words[0];
}

}  // namespace

void printRunUsage(std::FILE* out) {
  std::fputs(kRunUsage, out);
  for (const auto& command : commands()) {
    std::fprintf(out, "\n    %-12s %s", command.shortName, command.name);
    for (const char* parameter : command.parameters) std::fprintf(out, " <%s>", parameter);
  }
  std::fprintf(out, "\n%s", kPostOptions);
}

int runScan(const std::vector<std::string>& args) {
  return guarded("scan", args, textUsage(kScanUsage), [&] {
    const Options o = parseOptions(args, {"--seconds", "--backend", "--log"});
    if (!o.words.empty()) throw UsageError("unexpected argument '" + o.words[0] + "'");
    Session session(o);
    std::set<std::string> seen;
    session.client->scan([&seen](const ChargerClient::PeripheralPtr& p, std::int64_t rssi) {
      if (!seen.insert(p->identifier()).second) return;
      std::printf("%-20s %-20s %4lld dBm\n", p->name().c_str(), p->identifier().c_str(),
                  static_cast<long long>(rssi));
      std::fflush(stdout);
    });
    session.client->runUntil(
        [] { return false; },
        std::chrono::milliseconds(static_cast<std::int64_t>(o.seconds * 1000)));
    session.client->stopScan();
    if (const std::string note = session.client->radioNote(); seen.empty() && !note.empty()) {
      std::fprintf(stderr, "tqble scan: nothing heard%s\n", note.c_str());
      return 3;
    }
    return 0;
  });
}

int runRun(const std::vector<std::string>& args) {
  return guarded("run", args, printRunUsage, [&] {
    const Options o = parseOptions(args, {"--table", "--raw", "--backend", "--log"});
    if (o.words.size() < 2) throw UsageError(o.words.empty() ? "missing POST" : "missing COMMAND");
    const Command& command = findCommand(o.words[1]);
    Args values;
    for (std::size_t i = 2; i < o.words.size(); ++i) {
      if (values.size() == command.parameters.size())
        throw UsageError(std::string(command.shortName) + ": unexpected argument '" + o.words[i] +
                         "'");
      values.push_back(
          parseInteger(o.words[i], command.parameters[values.size()], INT64_MIN, INT64_MAX));
    }
    if (values.size() < command.parameters.size())
      throw UsageError(std::string(command.shortName) + ": missing <" +
                       command.parameters[values.size()] + ">");
    Session session(o);
    session.connect(o.words[0]);
    const Json answer = session.ask(command, o.raw, values);
    if (o.table) {
      printTable(answer);
    } else {
      std::printf("%s\n", answer.dump(2).c_str());
    }
    return 0;
  });
}

int runSurvey(const std::vector<std::string>& args) {
  return guarded("survey", args, textUsage(kSurveyUsage), [&] {
    const Options o = parseOptions(args, {"--raw", "--backend", "--log"});
    const std::string& post = onlyPost(o);
    Session session(o);
    session.connect(post);
    Json survey = Json::object();
    int status = 0;
    for (const char* name : {"info", "state", "history", "energy", "errors", "diagnostics"}) {
      try {
        survey[name] = session.ask(findCommand(name), o.raw);
      } catch (const PostFailure& f) {
        survey[name] = Json{{"error", describe(f.error.kind)}, {"message", f.error.message}};
        if (status == 0) status = exitStatus(f.error.kind);
      }
    }
    std::printf("%s\n", survey.dump(2).c_str());
    return status;
  });
}

int runWatch(const std::vector<std::string>& args) {
  return guarded("watch", args, textUsage(kWatchUsage), [&] {
    const Options o = parseOptions(args, {"--every", "--raw", "--backend", "--log"});
    const std::string& post = onlyPost(o);
    Session session(o);
    session.connect(post);
    interrupted = false;
    std::signal(SIGINT, [](int) { interrupted = true; });
    std::signal(SIGTERM, [](int) { interrupted = true; });
    const auto every = std::chrono::milliseconds(static_cast<std::int64_t>(o.every * 1000));
    // A tick lets the loop see an interruption while it waits.
    struct Tick {
      static void arm(std::weak_ptr<bool> on) {
        MainQueue::main().asyncAfter(100ms, [on] {
          if (on.lock()) arm(on);
        });
      }
    };
    const auto ticking = std::make_shared<bool>(true);
    Tick::arm(ticking);
    while (!interrupted) {
      const Json state = session.ask(findCommand("state"), o.raw);
      Json line = o.raw ? Json{{"time", static_cast<std::int64_t>(std::time(nullptr))}}
                        : Json{{"time_utc", isoUtc(std::chrono::floor<std::chrono::seconds>(
                                                std::chrono::system_clock::now()))}};
      line.update(state);
      std::printf("%s\n", line.dump().c_str());
      std::fflush(stdout);
      session.client->runUntil([] { return interrupted.load(); }, every);
    }
    return 0;
  });
}

int runHistory(const std::vector<std::string>& args) {
  return guarded("history", args, textUsage(kHistoryUsage), [&] {
    const Options o = parseOptions(args, {"--csv", "--raw", "--backend", "--log"});
    const std::string& post = onlyPost(o);
    Session session(o);
    session.connect(post);
    const auto sessions =
        session.wait<ChargingHistory>([&](auto done) { session.client->queryHistory(done); });
    if (!o.csv) {
      std::printf("%s\n", answerJson(sessions, o.raw).dump(2).c_str());
      return 0;
    }
    std::printf("start,end,duration_s,energy_kWh\n");
    for (const auto& s : sessions) {
      std::printf("%s,%s,%lld,%.3f\n", isoUtc(s.start).c_str(), isoUtc(s.end).c_str(),
                  static_cast<long long>(s.duration.count()), s.kilowattHours);
    }
    return 0;
  });
}

}  // namespace tqble::cli
