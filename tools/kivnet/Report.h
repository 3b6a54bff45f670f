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

// The devices as a table (address, MAC, name, first product, ports), then a summary line and
// one line for each answer that could not be read.
std::string DiscoveryTable(const Discovery &discovery);

// {"devices": [...], "unreadable": [...], "datagrams": n, "duplicates": n, "seconds": s}.
std::string DiscoveryJson(const Discovery &discovery);

std::string PingText(const PingAnswer &answer);
std::string PingJson(const PingAnswer &answer);

std::string StatusText(const StatusAnswer &answer);
std::string StatusJson(const StatusAnswer &answer);

// A configuration the device accepted (result byte 0).
std::string ConfigText(const ConfigAnswer &answer, const std::string &mac);
std::string ConfigJson(const ConfigAnswer &answer, const std::string &mac);

std::string HostInfoText(const HostInfo &host);
std::string HostInfoJson(const HostInfo &host);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_REPORT_H
