// kivnet's output. Device texts arrive from the network as arbitrary bytes (the library keeps
// zero bytes and length bytes inside values), so every writer goes through JsonString or
// Printable.
#include "tools/kivnet/Report.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "tools/kivnet/CommandLine.h"
#include "tools/kivnet/ResultCodes.h"

namespace kivnet {

namespace {

// The length of the valid UTF-8 sequence that starts at `i`, or 0 when the byte there starts
// none (a stray continuation byte, an overlong form, a surrogate, a value past U+10FFFF, or a
// sequence cut short).
std::size_t Utf8Length(const std::string &s, std::size_t i, unsigned long &codePoint) {
  const unsigned char c = static_cast<unsigned char>(s[i]);
  std::size_t length = 0;
  unsigned long value = 0;
  unsigned long minimum = 0;
  if (c < 0x80) {
    codePoint = c;
    return 1;
  } else if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
    value = c & 0x1F;
    minimum = 0x80;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    value = c & 0x0F;
    minimum = 0x800;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    value = c & 0x07;
    minimum = 0x10000;
  } else {
    return 0;
  }
  if (s.size() - i < length) {
    return 0;
  }
  for (std::size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(s[i + k]);
    if ((next & 0xC0) != 0x80) {
      return 0;
    }
    value = (value << 6) | (next & 0x3F);
  }
  if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
    return 0;
  }
  codePoint = value;
  return length;
}

std::string Escape4(unsigned long value) {
  char text[8];
  std::snprintf(text, sizeof text, "\\u%04lx", value);
  return text;
}

std::string HexBytes(const std::string &bytes) {
  std::string out;
  char pair[4];
  for (unsigned char c : bytes) {
    std::snprintf(pair, sizeof pair, "%02x", c);
    out += pair;
  }
  return out;
}

std::string Number(double value, int decimals) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// The number of characters a terminal shows for `text` (code points; an escape counts per byte).
std::size_t Columns(const std::string &text) {
  std::size_t count = 0;
  for (unsigned char c : text) {
    count += (c & 0xC0) != 0x80 ? 1 : 0;
  }
  return count;
}

// A minimal writer for the objects kivnet prints: members in the order they are added, written
// one a line (Pretty) or all on one line (Compact).
class JsonObject {
public:
  JsonObject &Text(const char *name, const std::string &value) {
    return Raw(name, JsonString(value));
  }
  JsonObject &TextOrNull(const char *name, const std::string &value) {
    return Raw(name, value.empty() ? "null" : JsonString(value));
  }
  JsonObject &Int(const char *name, long long value) { return Raw(name, std::to_string(value)); }
  JsonObject &Bool(const char *name, bool value) { return Raw(name, value ? "true" : "false"); }
  JsonObject &Raw(const char *name, const std::string &json) {
    mMembers.push_back(JsonString(name) + ": " + json);
    return *this;
  }
  std::string Pretty(int indent) const {
    if (mMembers.empty()) {
      return "{}";
    }
    const std::string inner(static_cast<std::size_t>(indent + 2), ' ');
    std::string out = "{\n";
    for (std::size_t i = 0; i < mMembers.size(); ++i) {
      out += inner + mMembers[i] + (i + 1 < mMembers.size() ? ",\n" : "\n");
    }
    return out + std::string(static_cast<std::size_t>(indent), ' ') + "}";
  }
  std::string Compact() const {
    std::string out = "{";
    for (std::size_t i = 0; i < mMembers.size(); ++i) {
      out += (i == 0 ? "" : ", ") + mMembers[i];
    }
    return out + "}";
  }
  // Pretty at `indent`, or Compact when `indent` is below 0.
  std::string Done(int indent) const { return indent < 0 ? Compact() : Pretty(indent); }

private:
  std::vector<std::string> mMembers;
};

// Items one a line at `indent`, or all on one line when `indent` is below 0.
std::string JsonArray(const std::vector<std::string> &items, int indent) {
  if (items.empty()) {
    return "[]";
  }
  if (indent < 0) {
    std::string out = "[";
    for (std::size_t i = 0; i < items.size(); ++i) {
      out += (i == 0 ? "" : ", ") + items[i];
    }
    return out + "]";
  }
  const std::string inner(static_cast<std::size_t>(indent + 2), ' ');
  std::string out = "[\n";
  for (std::size_t i = 0; i < items.size(); ++i) {
    out += inner + items[i] + (i + 1 < items.size() ? ",\n" : "\n");
  }
  return out + std::string(static_cast<std::size_t>(indent), ' ') + "]";
}

int Deeper(int indent, int by) { return indent < 0 ? indent : indent + by; }

// PASSWORDSET as the record gives it: "TRUE", "FALSE", or empty when the device said neither.
std::string PasswordSetJson(const std::string &value) {
  return value == "TRUE" ? "true" : value == "FALSE" ? "false" : "null";
}

// OEMBYTE as a number when the device sent a decimal number, else null.
std::string OemByteJson(const std::string &value) {
  if (value.empty() || value.size() > 9 ||
      value.find_first_not_of("0123456789") != std::string::npos) {
    return "null";
  }
  return std::to_string(std::strtol(value.c_str(), nullptr, 10));
}

std::string PortsJson(const std::vector<DeviceSpecific> &ports, int indent) {
  std::vector<std::string> items;
  for (const DeviceSpecific &port : ports) {
    items.push_back(JsonObject()
                        .Int("port", port.iPortInfo)
                        .Text("product", port.strProdID)
                        .Text("vidPid", port.strPrintrVidPid)
                        .Done(Deeper(indent, 2)));
  }
  return JsonArray(items, indent);
}

JsonObject DeviceMembers(const FoundDevice &device, int indent) {
  const KivNetRecord &r = device.record;
  JsonObject object;
  object.Text("address", r.strIPAddr)
      .Text("netmask", r.strIPNetMask)
      .Text("gateway", r.strIPGateway)
      .Text("name", r.strIPName)
      .Text("mac", r.strMacUaa)
      .Text("macLaa", r.strMacLaa)
      .Text("adapterType", r.strAdapterType)
      .Text("adapterName", r.strAdapterName)
      .Text("addressSource", r.strIPAddrSrc)
      .Raw("oemByte", OemByteJson(r.strOEMByte))
      .Raw("passwordSet", PasswordSetJson(r.strPwdSet))
      .Raw("ports", PortsJson(r.vecDeviceSpecific, Deeper(indent, 2)))
      .Text("answeredFrom", device.from)
      .Int("answeredPort", device.fromPort)
      .Bool("possiblyCut", device.possiblyCut);
  return object;
}

JsonObject UnreadMembers(const UnreadAnswer &answer) {
  JsonObject object;
  object.Text("from", answer.from)
      .Int("port", answer.fromPort)
      .Int("bytes", answer.length)
      .Text("code", CodeHex(answer.code))
      .Text("meaning", DescribeCode(answer.code))
      .Bool("possiblyCut", answer.possiblyCut);
  return object;
}

// Table columns of the discovery listing: rows are printed as devices answer, so the widths are
// fixed; a longer cell pushes the rest of its row to the right.
const std::size_t kColumnWidths[] = {15, 14, 24, 28};

std::string Row(const std::vector<std::string> &cells) {
  std::string line;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    line += cells[i];
    if (i + 1 < cells.size()) {
      const std::size_t width = i < 4 ? kColumnWidths[i] : 0;
      const std::size_t used = Columns(cells[i]);
      line += std::string(used < width ? width - used + 2 : 2, ' ');
    }
  }
  return line + "\n";
}

// Columns padded to the widest printable cell, two spaces apart; the last is not padded.
std::string Table(const std::vector<std::vector<std::string>> &rows) {
  std::vector<std::size_t> widths;
  for (const auto &row : rows) {
    widths.resize(std::max(widths.size(), row.size()), 0);
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], Columns(row[i]));
    }
  }
  std::string out;
  for (const auto &row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) {
        line += std::string(widths[i] - Columns(row[i]) + 2, ' ');
      }
    }
    out += line + "\n";
  }
  return out;
}

std::string Plural(std::size_t count, const char *one, const char *many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

} // namespace

std::string JsonString(const std::string &bytes) {
  std::string out = "\"";
  for (std::size_t i = 0; i < bytes.size();) {
    unsigned long codePoint = 0;
    const std::size_t length = Utf8Length(bytes, i, codePoint);
    if (length == 0) {
      out += Escape4(static_cast<unsigned char>(bytes[i]));
      ++i;
      continue;
    }
    switch (codePoint) {
    case '"':
      out += "\\\"";
      break;
    case '\\':
      out += "\\\\";
      break;
    case '\b':
      out += "\\b";
      break;
    case '\f':
      out += "\\f";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      // U+2028 and U+2029 are valid JSON but end a line in JavaScript source.
      if (codePoint < 0x20 || codePoint == 0x7F || codePoint == 0x2028 || codePoint == 0x2029) {
        out += Escape4(codePoint);
      } else {
        out.append(bytes, i, length);
      }
    }
    i += length;
  }
  return out + "\"";
}

std::string Printable(const std::string &bytes) {
  std::string out;
  for (std::size_t i = 0; i < bytes.size();) {
    unsigned long codePoint = 0;
    const std::size_t length = Utf8Length(bytes, i, codePoint);
    // C1 controls (U+0080-U+009F) steer terminals as well as the ASCII ones.
    if (length == 0 || codePoint < 0x20 || codePoint == 0x7F ||
        (codePoint >= 0x80 && codePoint <= 0x9F)) {
      const std::size_t count = length == 0 ? 1 : length;
      for (std::size_t k = 0; k < count; ++k) {
        char text[8];
        std::snprintf(text, sizeof text, "\\x%02X", static_cast<unsigned char>(bytes[i + k]));
        out += text;
      }
      i += count;
      continue;
    }
    if (codePoint == '\\') {
      out += "\\\\";
    } else {
      out.append(bytes, i, length);
    }
    i += length;
  }
  return out;
}

std::string DiscoveryHeader() { return Row({"ADDRESS", "MAC", "NAME", "PRODUCT", "PORTS"}); }

std::string DiscoveryRow(const FoundDevice &device) {
  const KivNetRecord &r = device.record;
  const std::string product =
      r.vecDeviceSpecific.empty() ? "-" : Printable(r.vecDeviceSpecific.front().strProdID);
  return Row({Printable(r.strIPAddr), Printable(r.strMacUaa), Printable(r.strIPName), product,
              std::to_string(r.vecDeviceSpecific.size())});
}

std::string DiscoverySummary(const Discovery &discovery) {
  std::string out = discovery.devices.empty()
                        ? std::string("no device answered")
                        : Plural(discovery.devices.size(), "device", "devices");
  out += " in " + Number(discovery.seconds, 1) + " s";
  if (discovery.duplicates > 0) {
    out += " (" +
           Plural(static_cast<std::size_t>(discovery.duplicates), "repeated answer",
                  "repeated answers") +
           " ignored)";
  }
  if (!discovery.unread.empty()) {
    out += ", " + Plural(discovery.unread.size(), "unreadable answer", "unreadable answers");
  }
  if (discovery.limitReached) {
    out += ", receiving stopped after " +
           Plural(static_cast<std::size_t>(discovery.datagrams), "datagram", "datagrams");
  }
  return out + "\n";
}

std::string UnreadLine(const UnreadAnswer &answer) {
  return "unreadable answer from " + answer.from + ":" + std::to_string(answer.fromPort) + " (" +
         Plural(static_cast<std::size_t>(answer.length), "byte", "bytes") +
         (answer.possiblyCut ? ", the receive limit: possibly cut" : "") +
         "): " + DescribeCode(answer.code) + " [" + CodeHex(answer.code) + "]\n";
}

std::string PossiblyCutLine(const std::string &from, int port) {
  return "the answer from " + from + ":" + std::to_string(port) + " filled the " +
         std::to_string(kReceiveLimit) + "-byte receive limit and may have been cut\n";
}

std::string DiscoveryJson(const Discovery &discovery) {
  std::vector<std::string> devices;
  for (const FoundDevice &device : discovery.devices) {
    devices.push_back(DeviceMembers(device, 4).Pretty(4));
  }
  std::vector<std::string> unread;
  for (const UnreadAnswer &answer : discovery.unread) {
    unread.push_back(UnreadMembers(answer).Pretty(4));
  }
  return JsonObject()
             .Raw("devices", JsonArray(devices, 2))
             .Raw("unreadable", JsonArray(unread, 2))
             .Int("datagrams", discovery.datagrams)
             .Int("duplicates", discovery.duplicates)
             .Bool("limitReached", discovery.limitReached)
             .Raw("seconds", Number(discovery.seconds, 3))
             .Pretty(0) +
         "\n";
}

std::string DeviceJsonLine(const FoundDevice &device) {
  JsonObject object;
  object.Text("kind", "device");
  return object.Raw("device", DeviceMembers(device, -1).Compact()).Compact() + "\n";
}

std::string UnreadJsonLine(const UnreadAnswer &answer) {
  JsonObject object;
  object.Text("kind", "unreadable");
  return object.Raw("unreadable", UnreadMembers(answer).Compact()).Compact() + "\n";
}

std::string SummaryJsonLine(const Discovery &discovery) {
  return JsonObject()
             .Text("kind", "summary")
             .Int("devices", static_cast<long long>(discovery.devices.size()))
             .Int("unreadable", static_cast<long long>(discovery.unread.size()))
             .Int("datagrams", discovery.datagrams)
             .Int("duplicates", discovery.duplicates)
             .Bool("limitReached", discovery.limitReached)
             .Raw("seconds", Number(discovery.seconds, 3))
             .Compact() +
         "\n";
}

std::string PingText(const PingAnswer &answer) {
  return "reply from " + answer.from + ":" + std::to_string(answer.fromPort) + " in " +
         Number(answer.milliseconds, 2) + " ms: status " + std::to_string(answer.info.iStatus) +
         (answer.info.iStatus == 1 ? " (ping reply)" : " (not a ping reply)") + ", port info " +
         std::to_string(answer.info.iPortInfo) + ", channel " +
         std::to_string(answer.info.iChannelID) + "\n";
}

std::string PingJson(const PingAnswer &answer) {
  return JsonObject()
             .Text("from", answer.from)
             .Int("port", answer.fromPort)
             .Raw("milliseconds", Number(answer.milliseconds, 3))
             .Int("status", answer.info.iStatus)
             .Int("portInfo", answer.info.iPortInfo)
             .Int("channel", answer.info.iChannelID)
             .Pretty(0) +
         "\n";
}

std::string StatusText(const StatusAnswer &answer) {
  const StatCacheResponse &s = answer.status;
  std::string hex;
  for (std::size_t i = 0; i < s.strPayload.size(); ++i) {
    char pair[4];
    std::snprintf(pair, sizeof pair, "%02X", static_cast<unsigned char>(s.strPayload[i]));
    hex += (i == 0 ? "" : (i % 16 == 0 ? "\n                  " : " ")) + std::string(pair);
  }
  const std::vector<std::vector<std::string>> rows = {
      {"  adapter MAC", Printable(s.strAdapterUAA)},
      {"  adapter address", Printable(s.strAdapterIPAddr)},
      {"  printer id", s.strPrinterID.empty() ? "-" : Printable(s.strPrinterID)},
      {"  port info", std::to_string(s.iPortInfo)},
      {"  channel", std::to_string(s.iChannelID)},
      {"  status bytes", std::to_string(s.iPayloadLength)},
  };
  std::string out =
      "status cache of " + answer.from + ":" + std::to_string(answer.fromPort) + "\n" + Table(rows);
  if (!hex.empty()) {
    out += "                  " + hex + "\n";
  }
  return out;
}

std::string StatusJson(const StatusAnswer &answer) {
  const StatCacheResponse &s = answer.status;
  return JsonObject()
             .Text("from", answer.from)
             .Int("port", answer.fromPort)
             .Int("portInfo", s.iPortInfo)
             .Int("channel", s.iChannelID)
             .Text("adapterMac", s.strAdapterUAA)
             .Text("adapterAddress", s.strAdapterIPAddr)
             .TextOrNull("printerId", s.strPrinterID)
             .Int("statusLength", s.iPayloadLength)
             .Text("statusHex", HexBytes(s.strPayload))
             .Bool("possiblyCut", answer.possiblyCut)
             .Pretty(0) +
         "\n";
}

std::string ConfigText(const ConfigAnswer &answer, const std::string &mac) {
  const KivNetRecord &r = answer.record;
  return "device " + mac + " accepted the configuration: address " + Printable(r.strIPAddr) +
         ", net mask " + Printable(r.strIPNetMask) + ", gateway " + Printable(r.strIPGateway) +
         " (answered from " + answer.from + ":" + std::to_string(answer.fromPort) + ")\n";
}

std::string ConfigJson(const ConfigAnswer &answer, const std::string &mac) {
  const KivNetRecord &r = answer.record;
  return JsonObject()
             .Text("mac", mac)
             .Int("result", r.iResponse)
             .Text("address", r.strIPAddr)
             .Text("netmask", r.strIPNetMask)
             .Text("gateway", r.strIPGateway)
             .Text("answeredFrom", answer.from)
             .Int("answeredPort", answer.fromPort)
             .Bool("possiblyCut", answer.possiblyCut)
             .Pretty(0) +
         "\n";
}

std::string HostInfoText(const HostInfo &host) {
  std::vector<std::vector<std::string>> rows = {
      {"host name", Printable(host.hostname)},
      {"interface", host.interfaceName.empty() ? "-" : Printable(host.interfaceName)},
      {"address", host.address},
      {"net mask", host.netmask},
      {"broadcast", host.broadcast},
      {"gateway", host.gateway},
  };
  for (const auto &entry : host.hardware) {
    rows.push_back({"mac " + Printable(entry.first), entry.second});
  }
  return Table(rows);
}

std::string HostInfoJson(const HostInfo &host) {
  std::vector<std::string> hardware;
  for (const auto &entry : host.hardware) {
    hardware.push_back(
        JsonObject().Text("interface", entry.first).Text("mac", entry.second).Pretty(4));
  }
  return JsonObject()
             .Text("hostname", host.hostname)
             .TextOrNull("interface", host.interfaceName)
             .Text("address", host.address)
             .Text("netmask", host.netmask)
             .Text("broadcast", host.broadcast)
             .Text("gateway", host.gateway)
             .Raw("interfaces", JsonArray(hardware, 2))
             .Pretty(0) +
         "\n";
}

namespace {

// Bytes as "1b 45 0d".
std::string SpacedHex(const std::string &bytes) {
  std::string out;
  char pair[4];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(bytes[i]));
    out += (i == 0 ? "" : " ") + std::string(pair);
  }
  return out;
}

// 16 bytes a line: the offset, the bytes in two groups of eight, and the bytes as characters
// (printable ASCII, '.' for the others) between bars.
std::string HexDump(const std::string &bytes) {
  std::string out;
  for (std::size_t line = 0; line < bytes.size(); line += 16) {
    char text[32];
    std::snprintf(text, sizeof text, "  %04zx  ", line);
    std::string hex = text, characters;
    for (std::size_t i = line; i < line + 16; ++i) {
      if (i < bytes.size()) {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        std::snprintf(text, sizeof text, "%02x ", c);
        hex += text;
        characters += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
      } else {
        hex += "   ";
      }
      if (i == line + 7) {
        hex += " ";
      }
    }
    out += hex + " |" + characters + "|\n";
  }
  return out;
}

std::string SignalName(int signal) {
  return signal == SIGINT ? "SIGINT" : signal == SIGTERM ? "SIGTERM" : std::to_string(signal);
}

const char *ReasonName(ChannelEndReason reason) {
  switch (reason) {
  case ChannelEndReason::kCount:
    return "count";
  case ChannelEndReason::kClosed:
    return "closed";
  case ChannelEndReason::kQuiet:
    return "quiet";
  case ChannelEndReason::kListenerIdle:
    return "listener-idle";
  case ChannelEndReason::kInterrupted:
    break;
  }
  return "interrupted";
}

} // namespace

std::string ChannelOpenedText(const std::string &address, int port, int endPoint) {
  return "opened the " + EndPointName(endPoint) + " channel of " + address + ":" +
         std::to_string(port) + "\n";
}

std::string ChannelOpenedJson(const std::string &address, int port, int endPoint) {
  return JsonObject()
             .Text("kind", "open")
             .Text("address", address)
             .Int("port", port)
             .Text("interface", EndPointName(endPoint))
             .Compact() +
         "\n";
}

std::string ChannelSentText(const std::string &bytes) {
  // A long write is shown by its first bytes, as a frame is.
  const std::size_t shown = std::min<std::size_t>(bytes.size(), 16);
  return "sent " + Plural(bytes.size(), "byte", "bytes") + ": " +
         SpacedHex(bytes.substr(0, shown)) + (shown < bytes.size() ? " ..." : "") + "\n";
}

std::string ChannelSentJson(const std::string &bytes) {
  return JsonObject()
             .Text("kind", "sent")
             .Int("bytes", static_cast<long long>(bytes.size()))
             .Text("hex", HexBytes(bytes))
             .Compact() +
         "\n";
}

std::string ChannelFrameText(const ChannelFrame &frame) {
  std::string out = "frame " + std::to_string(frame.number) + ": " +
                    Plural(static_cast<std::size_t>(frame.length), "byte", "bytes");
  if (frame.head.size() < static_cast<std::size_t>(frame.length)) {
    out += " (the first " + std::to_string(frame.head.size()) + " shown)";
  }
  return out + "\n" + HexDump(frame.head);
}

std::string ChannelFrameJson(const ChannelFrame &frame) {
  return JsonObject()
             .Text("kind", "frame")
             .Int("frame", frame.number)
             .Int("length", frame.length)
             .Raw("seconds", Number(frame.seconds, 3))
             .Text("hex", HexBytes(frame.head))
             .Int("hexBytes", static_cast<long long>(frame.head.size()))
             .Compact() +
         "\n";
}

std::string ChannelEndText(const ChannelEnd &end) {
  std::string why;
  switch (end.reason) {
  case ChannelEndReason::kCount:
    why = "the count was reached";
    break;
  case ChannelEndReason::kClosed:
    why = "the device closed the channel";
    break;
  case ChannelEndReason::kQuiet:
    why = "no frame for " + WaitText(end.quietTenths) + " s";
    break;
  case ChannelEndReason::kListenerIdle:
    why = "the listener ended after more than 20 s without a frame";
    break;
  case ChannelEndReason::kInterrupted:
    why = "interrupted by " + SignalName(end.signal);
    break;
  }
  return Plural(static_cast<std::size_t>(end.frames), "frame", "frames") + " (" +
         Plural(static_cast<std::size_t>(end.bytes), "byte", "bytes") + ") in " +
         Number(end.seconds, 1) + " s; " + why + "; channel closed\n";
}

std::string ChannelEndJson(const ChannelEnd &end) {
  return JsonObject()
             .Text("kind", "end")
             .Text("reason", ReasonName(end.reason))
             .Int("frames", end.frames)
             .Int("bytes", end.bytes)
             .Raw("seconds", Number(end.seconds, 3))
             .TextOrNull("signal", end.reason == ChannelEndReason::kInterrupted
                                       ? SignalName(end.signal)
                                       : std::string())
             .Compact() +
         "\n";
}

std::string MacText(const MacAnswer &answer) {
  if (answer.mac.empty()) {
    return "no MAC address from " + answer.address + " within " +
           std::to_string(answer.waitSeconds) + " s\n";
  }
  return answer.address + " answered in " + Number(answer.seconds, 1) + " s: MAC " +
         Printable(answer.mac) + " (ET" + Printable(answer.mac) + ")\n";
}

std::string MacJson(const MacAnswer &answer) {
  return JsonObject()
             .Text("address", answer.address)
             .Raw("mac", answer.mac.empty() ? "null" : JsonString(answer.mac))
             .Raw("macEt", answer.mac.empty() ? "null" : JsonString("ET" + answer.mac))
             .Raw("seconds", Number(answer.seconds, 3))
             .Pretty(0) +
         "\n";
}

std::string RelocationText(const RelocationPlan &plan, const RelocationResult &result) {
  if (!result.found) {
    std::string where;
    if (!plan.remembered.empty()) {
      where += "the remembered address " + plan.remembered + ", ";
    }
    where += plan.given + " (the address given)";
    return plan.mac + " not found in " + Number(result.seconds, 1) +
           " s: no answer with that MAC from " + where + " or from a web server DNS-SD found in " +
           std::to_string(plan.waitSeconds) + " s\n";
  }
  const std::string address = Printable(result.address);
  std::string out = result.address == plan.given
                        ? plan.mac + " is at " + address + ", the address given (confirmed in " +
                              Number(result.seconds, 1) + " s)\n"
                        : plan.mac + " is at " + address + " (found in " +
                              Number(result.seconds, 1) + " s; the address given was " +
                              plan.given + ")\n";
  out += result.remembered ? "remembered in the device store " + Printable(plan.store) + "\n"
                           : "not remembered: the device store " + Printable(plan.store) +
                                 " could not be written\n";
  return out;
}

std::string RelocationJson(const RelocationPlan &plan, const RelocationResult &result) {
  return JsonObject()
             .Text("mac", plan.mac)
             .Bool("found", result.found)
             .TextOrNull("address", result.address)
             .Text("given", plan.given)
             .TextOrNull("rememberedBefore", plan.remembered)
             .Text("store", plan.store)
             .Bool("remembered", result.remembered)
             .Int("waitSeconds", plan.waitSeconds)
             .Raw("seconds", Number(result.seconds, 3))
             .Pretty(0) +
         "\n";
}

std::string VersionText(const std::string &headers, const std::string &library) {
  std::string out = "kivnet (KivNetworkComm) " + headers + "\n";
  if (library != headers) {
    out += "running library libKivNetworkComm " + library + " (kivnet was built with the " +
           headers + " headers)\n";
  }
  return out;
}

std::string ErrorJson(const ErrorReport &error, bool oneLine) {
  JsonObject object;
  object.Text("error", error.text)
      .Text("kind", error.kind)
      .TextOrNull("function", error.function)
      .Raw("code", error.code == 0 ? "null" : JsonString(CodeHex(error.code)))
      .Text("meaning", error.meaning)
      .TextOrNull("system", error.system)
      .Int("exitStatus", error.exitStatus);
  return (oneLine ? object.Compact() : object.Pretty(0)) + "\n";
}

} // namespace kivnet
