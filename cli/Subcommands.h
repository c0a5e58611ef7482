#pragma once

#include <cstdio>
#include <string>
#include <vector>

// Each subcommand takes the arguments after its name and returns the exit status.
namespace tqble::cli {

/// `tqble frame <command> [arguments] [--status N] [--rand N] [--time SECONDS]`
int runFrame(const std::vector<std::string>& args);
/// `tqble decode <command> <hex>... [--log]`
int runDecode(const std::vector<std::string>& args);
/// `tqble capture FILE|- [--json] [--write-handle H --notify-handle H]`: a capture's conversation.
int runCapture(const std::vector<std::string>& args);
/// `tqble demo`: a scripted session against the virtual charging post.
int runDemo(const std::vector<std::string>& args);
// Asking a post (AskCommands.cpp).
/// `tqble scan [--seconds N]`: the posts heard.
int runScan(const std::vector<std::string>& args);
/// `tqble run POST COMMAND [ARGUMENTS] [--table]`: one command's answer.
int runRun(const std::vector<std::string>& args);
/// `tqble survey POST`: every read command.
int runSurvey(const std::vector<std::string>& args);
/// `tqble watch POST [--every S]`: the state, live, until interrupted.
int runWatch(const std::vector<std::string>& args);
/// `tqble history POST [--csv]`: the charging sessions.
int runHistory(const std::vector<std::string>& args);

/// Usage texts of the subcommands that ask a post.
extern const char kScanUsage[], kSurveyUsage[], kWatchUsage[], kHistoryUsage[];
/// `tqble run`'s usage, with the command list.
void printRunUsage(std::FILE* out);
/// `tqble bridge CONFIG`: the configured posts on an MQTT broker.
int runBridge(const std::vector<std::string>& args);
// Serving a post (ServeCommand.cpp).
/// `tqble post`: a virtual charging post served on a real adapter through bluetoothd.
int runPost(const std::vector<std::string>& args);

}  // namespace tqble::cli
