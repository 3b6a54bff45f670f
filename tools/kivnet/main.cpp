// kivnet: finds and talks to network printers and scanners from the command line through
// libKivNetworkComm's exported functions.
#include <cstdio>
#include <string>
#include <vector>

#include "tools/kivnet/Run.h"

int main(int argc, char **argv) {
  return kivnet::RunKivnet(std::vector<std::string>(argv + 1, argv + argc), stdout, stderr);
}
