#pragma once

#include <string>
#include <vector>

// Each subcommand takes the arguments after its name and returns the exit status.
namespace tqble::cli {

/// `tqble frame <command> [arguments] [--status N] [--rand N] [--time SECONDS]`
int runFrame(const std::vector<std::string>& args);
/// `tqble decode <command> <hex>`
int runDecode(const std::vector<std::string>& args);
/// `tqble demo`: a scripted session against the virtual charging post.
int runDemo(const std::vector<std::string>& args);
/// `tqble post`: a virtual charging post served on a real adapter through bluetoothd.
int runPost(const std::vector<std::string>& args);

}  // namespace tqble::cli
