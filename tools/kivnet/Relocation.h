// kivnet's MAC query and device relocation through the exported relocation functions, and the
// read-only look at the device store that lets kivnet tell which stage a relocation is in.
#ifndef KIV_TOOLS_KIVNET_RELOCATION_H
#define KIV_TOOLS_KIVNET_RELOCATION_H

#include <string>

#include "tools/kivnet/Answers.h"
#include "tools/kivnet/CommandLine.h"

namespace kivnet {

// Every check of a relocation waits this long for the device's answer.
constexpr int kCheckSeconds = 2;

// The MAC text the relocation functions compare: 12 lowercase hexadecimal digits, from the 12
// uppercase digits NormaliseMac gives.
std::string RelocationForm(const std::string &mac);

// The device store's path: KIVNET_DEVICE_STORE when it is set and not empty, else
// /var/lib/KivNetworkComm/devices.
std::string DeviceStorePath();

// The address the store at `path` remembers for `mac` (as the key was written), read the way the
// library reads it: a store that is missing, unreadable, not a regular file, over 1 MiB, without
// its header line or with a line that is no entry holds nothing, and an address that is not
// dotted IPv4 of at most 15 characters counts as absent. "" for none. Opens the file read-only
// and never creates or locks anything.
std::string RememberedAddress(const std::string &path, const std::string &mac);

// Asks line.target for its MAC text (QueryMACAddressByHCP, line.waitTenths / 10 seconds).
void QueryMac(const CommandLine &line, MacAnswer &answer);

// The relocation of line.mac from line.from: the store and the address it remembers.
RelocationPlan PlanRelocation(const CommandLine &line);

// Runs the relocation (ResolveNewIPAddress with a 16-byte buffer holding plan.given) and reads
// the store again to tell whether it now remembers the address found.
void Relocate(const RelocationPlan &plan, RelocationResult &result);

// The stage a relocation is in after `elapsed` seconds, judged by the library's bounds (2 s per
// check, then the browse): "1/3 asking the remembered address 127.0.0.5 (1.2 s)", "2/3 asking
// 127.0.0.9, the address given (0.4 s)", "3/3 browsing DNS-SD for web servers (8 s left)", and
// "3/3 ending the browse" past the time-out. Without a remembered address the stages are 1/2 and
// 2/2.
std::string RelocationStage(const RelocationPlan &plan, double elapsed);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_RELOCATION_H
