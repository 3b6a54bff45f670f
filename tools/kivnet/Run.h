// kivnet as a whole: from the arguments to the exit status, with its output streams given, so
// that tests run it in the process.
#ifndef KIV_TOOLS_KIVNET_RUN_H
#define KIV_TOOLS_KIVNET_RUN_H

#include <cstdio>
#include <string>
#include <vector>

namespace kivnet {

// Runs the command `args` (the arguments after the program name) and returns the exit status
// (kExitSuccess, kExitFailure, kExitUsage, kExitNothingFound). Results go to `out`, error lines
// ("kivnet: COMMAND: ...") to `err`; with --json or --json-lines a failure is also written to
// `out` as a JSON object. A failed write to `out` makes the status kExitFailure at least.
int RunKivnet(const std::vector<std::string> &args, std::FILE *out, std::FILE *err);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_RUN_H
