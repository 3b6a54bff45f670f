// kivnet's output: tables and lines for people, JSON for scripts. Every text that came from the
// network is escaped on the way out, so a device cannot write control sequences to a terminal or
// break a JSON document.
#ifndef KIV_TOOLS_KIVNET_REPORT_H
#define KIV_TOOLS_KIVNET_REPORT_H

#include <string>

#include "tools/kivnet/Answers.h"

namespace kivnet {

// `bytes` as a JSON string literal, quotes included. Valid UTF-8 passes through; quote,
// backslash and control characters are escaped (\", \\, \n, \u0000 ...), as are U+2028 and
// U+2029; a byte that is not part of valid UTF-8 becomes the escape of the Latin-1 character
// of the same value (byte E9 alone gives \u00e9), so no input makes the document invalid.
std::string JsonString(const std::string &bytes);

// `bytes` for a terminal: printable ASCII and valid UTF-8 pass through; a backslash becomes
// "\\"; control characters, DEL and bytes that are not valid UTF-8 become "\xNN".
std::string Printable(const std::string &bytes);

// The discovery listing, printed as devices answer: the header line, one row per device
// (address, MAC, name, first product, number of ports; fixed column widths), and the summary
// line ("3 devices in 2.0 s", "no device answered in 2.0 s", with repeats and unreadable
// answers counted).
std::string DiscoveryHeader();
std::string DiscoveryRow(const FoundDevice &device);
std::string DiscoverySummary(const Discovery &discovery);

// One line for standard error about an answer that could not be read, or that filled the
// receive limit.
std::string UnreadLine(const UnreadAnswer &answer);
std::string PossiblyCutLine(const std::string &from, int port);

// {"devices": [...], "unreadable": [...], "datagrams": n, "duplicates": n, "limitReached": b,
// "seconds": s}.
std::string DiscoveryJson(const Discovery &discovery);

// One-line objects of --json-lines: {"kind": "device", "device": {...}}, {"kind":
// "unreadable", "unreadable": {...}} and, last, {"kind": "summary", ...}.
std::string DeviceJsonLine(const FoundDevice &device);
std::string UnreadJsonLine(const UnreadAnswer &answer);
std::string SummaryJsonLine(const Discovery &discovery);

std::string PingText(const PingAnswer &answer);
std::string PingJson(const PingAnswer &answer);

std::string StatusText(const StatusAnswer &answer);
std::string StatusJson(const StatusAnswer &answer);

// A configuration the device accepted (result byte 0).
std::string ConfigText(const ConfigAnswer &answer, const std::string &mac);
std::string ConfigJson(const ConfigAnswer &answer, const std::string &mac);

std::string HostInfoText(const HostInfo &host);
std::string HostInfoJson(const HostInfo &host);

// The channel watch, a line (or a JSON object on one line) as each step happens: the open, each
// write, each frame (its length and a hex dump of its first kFrameHeadBytes bytes, 16 a line with
// their offset and characters, as hexdump -C shows them), and the end.
std::string ChannelOpenedText(const std::string &address, int port, int endPoint);
std::string ChannelOpenedJson(const std::string &address, int port, int endPoint);
std::string ChannelSentText(const std::string &bytes);
std::string ChannelSentJson(const std::string &bytes);
std::string ChannelFrameText(const ChannelFrame &frame);
std::string ChannelFrameJson(const ChannelFrame &frame);
std::string ChannelEndText(const ChannelEnd &end);
std::string ChannelEndJson(const ChannelEnd &end);

// A MAC query's answer, or that nothing usable answered.
std::string MacText(const MacAnswer &answer);
std::string MacJson(const MacAnswer &answer);

// A relocation's outcome.
std::string RelocationText(const RelocationPlan &plan, const RelocationResult &result);
std::string RelocationJson(const RelocationPlan &plan, const RelocationResult &result);

// "kivnet (KivNetworkComm) <headers>", and a second line naming the running library's version
// when it is another.
std::string VersionText(const std::string &headers, const std::string &library);

// A failure as the JSON error object gives it.
struct ErrorReport {
  std::string text;     // the error line without "kivnet: COMMAND: "
  std::string kind;     // "call-failed", "no-answer", "unreadable-answer", "cut-short", ...
  std::string function; // the exported function that failed, or ""
  UInt32 code = 0;      // its result code, 0 when none
  std::string meaning;  // what the code means, or what the kind means
  std::string system;   // the system's reason, or ""
  int exitStatus = 1;
};

// {"error": ..., "kind": ..., "function": ..., "code": "0x........", "meaning": ..., "system":
// ..., "exitStatus": n}; function, code and system are null when not known. One line when
// `oneLine`, else one member a line.
std::string ErrorJson(const ErrorReport &error, bool oneLine);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_REPORT_H
