// kivnet's output. Device texts arrive from the network as arbitrary bytes (the library keeps
// zero bytes and length bytes inside values), so every writer goes through JsonString or
// Printable.
#include "tools/kivnet/Report.h"

#include <algorithm>
#include <cstdio>
#include <vector>

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

// A minimal writer for the flat objects kivnet prints: members are added in order and the
// object is closed by Text().
class JsonObject {
public:
  explicit JsonObject(int indent) : mIndent(indent) {}
  JsonObject &Text(const char *name, const std::string &value) {
    return Raw(name, JsonString(value));
  }
  JsonObject &Int(const char *name, long long value) { return Raw(name, std::to_string(value)); }
  JsonObject &Raw(const char *name, const std::string &json) {
    mMembers.push_back(JsonString(name) + ": " + json);
    return *this;
  }
  std::string Done() const {
    if (mMembers.empty()) {
      return "{}";
    }
    const std::string inner(static_cast<std::size_t>(mIndent + 2), ' ');
    std::string out = "{\n";
    for (std::size_t i = 0; i < mMembers.size(); ++i) {
      out += inner + mMembers[i] + (i + 1 < mMembers.size() ? ",\n" : "\n");
    }
    return out + std::string(static_cast<std::size_t>(mIndent), ' ') + "}";
  }

private:
  int mIndent;
  std::vector<std::string> mMembers;
};

std::string JsonArray(const std::vector<std::string> &items, int indent) {
  if (items.empty()) {
    return "[]";
  }
  const std::string inner(static_cast<std::size_t>(indent + 2), ' ');
  std::string out = "[\n";
  for (std::size_t i = 0; i < items.size(); ++i) {
    out += inner + items[i] + (i + 1 < items.size() ? ",\n" : "\n");
  }
  return out + std::string(static_cast<std::size_t>(indent), ' ') + "]";
}

std::string PortsJson(const std::vector<DeviceSpecific> &ports, int indent) {
  std::vector<std::string> items;
  for (const DeviceSpecific &port : ports) {
    items.push_back(JsonObject(indent + 2)
                        .Int("port", port.iPortInfo)
                        .Text("product", port.strProdID)
                        .Text("vidPid", port.strPrintrVidPid)
                        .Done());
  }
  return JsonArray(items, indent);
}

std::string DeviceJson(const FoundDevice &device, int indent) {
  const KivNetRecord &r = device.record;
  return JsonObject(indent)
      .Text("address", r.strIPAddr)
      .Text("netmask", r.strIPNetMask)
      .Text("gateway", r.strIPGateway)
      .Text("name", r.strIPName)
      .Text("mac", r.strMacUaa)
      .Text("macLaa", r.strMacLaa)
      .Text("adapterType", r.strAdapterType)
      .Text("adapterName", r.strAdapterName)
      .Text("addressSource", r.strIPAddrSrc)
      .Text("oemByte", r.strOEMByte)
      .Text("passwordSet", r.strPwdSet)
      .Raw("ports", PortsJson(r.vecDeviceSpecific, indent + 2))
      .Text("answeredFrom", device.from)
      .Int("answeredPort", device.fromPort)
      .Done();
}

// Columns padded to the widest printable cell, two spaces apart; the last is not padded.
std::string Table(const std::vector<std::vector<std::string>> &rows) {
  std::vector<std::size_t> widths;
  for (const auto &row : rows) {
    widths.resize(std::max(widths.size(), row.size()), 0);
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::string out;
  for (const auto &row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) {
        line += std::string(widths[i] - row[i].size() + 2, ' ');
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

std::string DiscoveryTable(const Discovery &discovery) {
  std::string out;
  if (!discovery.devices.empty()) {
    std::vector<std::vector<std::string>> rows = {{"ADDRESS", "MAC", "NAME", "PRODUCT", "PORTS"}};
    for (const FoundDevice &device : discovery.devices) {
      const KivNetRecord &r = device.record;
      const std::string product =
          r.vecDeviceSpecific.empty() ? "-" : Printable(r.vecDeviceSpecific.front().strProdID);
      rows.push_back({Printable(r.strIPAddr), Printable(r.strMacUaa), Printable(r.strIPName),
                      product, std::to_string(r.vecDeviceSpecific.size())});
    }
    out += Table(rows);
  }
  out += discovery.devices.empty() ? std::string("no device answered")
                                   : Plural(discovery.devices.size(), "device", "devices");
  out += " in " + Number(discovery.seconds, 1) + " s";
  if (discovery.duplicates > 0) {
    out += " (" +
           Plural(static_cast<std::size_t>(discovery.duplicates), "repeated answer",
                  "repeated answers") +
           " ignored)";
  }
  out += "\n";
  for (const UnreadAnswer &answer : discovery.unread) {
    out += "unreadable answer from " + answer.from + ":" + std::to_string(answer.fromPort) + " (" +
           Plural(static_cast<std::size_t>(answer.length), "byte", "bytes") +
           "): " + CodeHex(answer.code) + " " + DescribeCode(answer.code) + "\n";
  }
  return out;
}

std::string DiscoveryJson(const Discovery &discovery) {
  std::vector<std::string> devices;
  for (const FoundDevice &device : discovery.devices) {
    devices.push_back(DeviceJson(device, 4));
  }
  std::vector<std::string> unread;
  for (const UnreadAnswer &answer : discovery.unread) {
    unread.push_back(JsonObject(4)
                         .Text("from", answer.from)
                         .Int("port", answer.fromPort)
                         .Int("bytes", answer.length)
                         .Text("code", CodeHex(answer.code))
                         .Text("meaning", DescribeCode(answer.code))
                         .Done());
  }
  return JsonObject(0)
             .Raw("devices", JsonArray(devices, 2))
             .Raw("unreadable", JsonArray(unread, 2))
             .Int("datagrams", discovery.datagrams)
             .Int("duplicates", discovery.duplicates)
             .Raw("seconds", Number(discovery.seconds, 3))
             .Done() +
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
  return JsonObject(0)
             .Text("from", answer.from)
             .Int("port", answer.fromPort)
             .Raw("milliseconds", Number(answer.milliseconds, 3))
             .Int("status", answer.info.iStatus)
             .Int("portInfo", answer.info.iPortInfo)
             .Int("channel", answer.info.iChannelID)
             .Done() +
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
  return JsonObject(0)
             .Text("from", answer.from)
             .Int("port", answer.fromPort)
             .Int("portInfo", s.iPortInfo)
             .Int("channel", s.iChannelID)
             .Text("adapterMac", s.strAdapterUAA)
             .Text("adapterAddress", s.strAdapterIPAddr)
             .Text("printerId", s.strPrinterID)
             .Int("statusLength", s.iPayloadLength)
             .Text("statusHex", HexBytes(s.strPayload))
             .Done() +
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
  return JsonObject(0)
             .Text("mac", mac)
             .Int("result", r.iResponse)
             .Text("address", r.strIPAddr)
             .Text("netmask", r.strIPNetMask)
             .Text("gateway", r.strIPGateway)
             .Text("answeredFrom", answer.from)
             .Int("answeredPort", answer.fromPort)
             .Done() +
         "\n";
}

std::string HostInfoText(const HostInfo &host) {
  std::vector<std::vector<std::string>> rows = {
      {"host name", Printable(host.hostname)},
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
        JsonObject(4).Text("interface", entry.first).Text("mac", entry.second).Done());
  }
  return JsonObject(0)
             .Text("hostname", host.hostname)
             .Text("address", host.address)
             .Text("netmask", host.netmask)
             .Text("broadcast", host.broadcast)
             .Text("gateway", host.gateway)
             .Raw("interfaces", JsonArray(hardware, 2))
             .Done() +
         "\n";
}

} // namespace kivnet
