// The device side of HCP and HBN3 over UDP, written from the wire layouts with its own byte code.
//
// Discovery answer (DNS shaped, one TXT answer record):
//   0  2  transaction identifier of the query
//   2  2  flags 84 00 (answer, authoritative)
//   4  8  counts: 0 questions, 1 answer, 0 authority, 0 additional
//   12 .. name kiv-<mac in lowercase hex>._host-config._udp.local, then 00
//   .. 10 type 00 10 (TXT), class 00 01, TTL 00 00 00 78, data length (2 bytes)
//   .. .. the items, each a length byte and KEY=value
// Configuration answer:
//   0  4  "HCP1"           4  2  version 00 01       6  6  the device's MAC address
//   12 6  the message's bytes 12-17                   18 4  the device's address before any change
//   22 2  00 00            24 2  80 01 (answer to configuration command 1)
//   26 1  result byte      27 1  00                  28 2  00 00 (no password)
//   30 4  item record length T                        34 T  the three address items as above
// HBN3 answers: the 24-byte header with the request's port information, channel and time stamp,
// the request's command with bit 31 set, and the payload length.
#include "sim/DeviceProtocol.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

namespace kivsim {

namespace {

const std::uint8_t kDiscoveryQuery[41] = {
    0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x5F,
    0x68, 0x6F, 0x73, 0x74, 0x2D, 0x63, 0x6F, 0x6E, 0x66, 0x69, 0x67, 0x04, 0x5F, 0x75,
    0x64, 0x70, 0x05, 0x6C, 0x6F, 0x63, 0x61, 0x6C, 0x00, 0x00, 0x21, 0x00, 0x01};
const std::size_t kHbn3HeaderSize = 24;
const std::size_t kMaxTxtString = 255;
const std::size_t kMaxAnnouncedAddress = 200;
const std::uint32_t kReplyBit = 0x80000000u;

bool Fits(std::size_t offset, std::size_t size, std::size_t length) {
  return offset <= length && size <= length - offset;
}

std::uint16_t GetBE16(const std::uint8_t *p) {
  return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

std::uint32_t GetBE32(const std::uint8_t *p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) |
         std::uint32_t(p[3]);
}

void PutBE16(Bytes &out, std::uint16_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

void PutBE32(Bytes &out, std::uint32_t value) {
  PutBE16(out, static_cast<std::uint16_t>(value >> 16));
  PutBE16(out, static_cast<std::uint16_t>(value & 0xFFFF));
}

void PutText(Bytes &out, const std::string &text) {
  out.insert(out.end(), text.begin(), text.end());
}

void PutBE16At(Bytes &out, std::size_t offset, std::uint16_t value) {
  out[offset] = static_cast<std::uint8_t>(value >> 8);
  out[offset + 1] = static_cast<std::uint8_t>(value & 0xFF);
}

void PutBE32At(Bytes &out, std::size_t offset, std::uint32_t value) {
  PutBE16At(out, offset, static_cast<std::uint16_t>(value >> 16));
  PutBE16At(out, offset + 2, static_cast<std::uint16_t>(value & 0xFFFF));
}

// A record item: its length byte, then its text (items are at most 255 bytes).
void PutItem(Bytes &out, const std::string &item) {
  const std::size_t size = item.size() < kMaxTxtString ? item.size() : kMaxTxtString;
  out.push_back(static_cast<std::uint8_t>(size));
  out.insert(out.end(), item.begin(), item.begin() + static_cast<std::ptrdiff_t>(size));
}

// The host cuts an unquoted value before the first uppercase letter and takes the next item's
// length byte into it, so every text value goes in double quotes. A quote inside the text would
// end the value early and becomes an apostrophe; the text is cut to keep the item within 255.
std::string QuotedItem(const std::string &head, const std::string &text) {
  std::string clean = text;
  for (char &c : clean) {
    if (c == '"') {
      c = '\'';
    }
  }
  const std::size_t room = kMaxTxtString - head.size() - 2;
  if (clean.size() > room) {
    clean.resize(room);
  }
  return head + "\"" + clean + "\"";
}

// Network-order address of a dotted text; 0 when it is none (the record's own texts are checked
// by the simulator before it serves them).
std::uint32_t AddressBytes(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
    return 0;
  }
  return ntohl(address.s_addr);
}

bool IsAddress(const std::string &text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

void PutLabel(Bytes &out, const std::string &label) {
  out.push_back(static_cast<std::uint8_t>(label.size()));
  PutText(out, label);
}

std::uint8_t ReverseBits(std::uint8_t value) {
  std::uint8_t result = 0;
  for (int bit = 0; bit < 8; ++bit) {
    result = static_cast<std::uint8_t>((result << 1) | ((value >> bit) & 1));
  }
  return result;
}

Bytes Hbn3Header(const std::uint8_t *request, std::uint32_t command, std::uint32_t dataLength) {
  Bytes out;
  out.reserve(kHbn3HeaderSize + dataLength);
  PutText(out, "HBN3");
  out.insert(out.end(), request + 4, request + 16); // port information, channel, time stamp
  PutBE32(out, command);
  PutBE32(out, dataLength);
  return out;
}

} // namespace

RequestKind Classify(const std::uint8_t *data, std::size_t length) {
  if (data == nullptr) {
    return RequestKind::kUnknown;
  }
  if (length >= sizeof kDiscoveryQuery && std::memcmp(data + 2, kDiscoveryQuery + 2, 10) == 0 &&
      (data[12] == 0x00 || data[12] == 0x0C) && // hosts send 00 where DNS has the label length
      std::memcmp(data + 13, kDiscoveryQuery + 13, sizeof kDiscoveryQuery - 13) == 0) {
    return RequestKind::kDiscovery;
  }
  if (length >= 4 && std::memcmp(data, "HCP1", 4) == 0) {
    return RequestKind::kConfiguration;
  }
  if (length >= kHbn3HeaderSize && std::memcmp(data, "HBN3", 4) == 0) {
    switch (GetBE32(data + 16)) {
    case 1:
      return RequestKind::kStatusCache;
    case 3:
      return RequestKind::kPing;
    case 4:
      return RequestKind::kHostList;
    case 5:
      return RequestKind::kRequestScan;
    default:
      break;
    }
  }
  return RequestKind::kUnknown;
}

std::string ReversedMacText(const std::uint8_t *mac) {
  char text[13];
  std::snprintf(text, sizeof text, "%02X%02X%02X%02X%02X%02X", ReverseBits(mac[0]),
                ReverseBits(mac[1]), ReverseBits(mac[2]), ReverseBits(mac[3]), ReverseBits(mac[4]),
                ReverseBits(mac[5]));
  return text;
}

Bytes DiscoveryAnswer(const DeviceRecord &record, std::uint16_t id, bool wrongMac) {
  Bytes out;
  out.reserve(512);
  PutBE16(out, id);
  PutBE16(out, 0x8400);
  PutBE16(out, 0); // questions
  PutBE16(out, 1); // answers
  PutBE16(out, 0);
  PutBE16(out, 0);
  char instance[20];
  std::snprintf(instance, sizeof instance, "kiv-%02x%02x%02x%02x%02x%02x", record.mac[0],
                record.mac[1], record.mac[2], record.mac[3], record.mac[4], record.mac[5]);
  PutLabel(out, instance);
  PutLabel(out, "_host-config");
  PutLabel(out, "_udp");
  PutLabel(out, "local");
  out.push_back(0);
  PutBE16(out, 0x0010); // TXT
  PutBE16(out, 0x0001); // IN
  PutBE32(out, 120);
  const std::size_t lengthOffset = out.size();
  PutBE16(out, 0);

  std::uint8_t mac[6];
  std::memcpy(mac, record.mac.data(), sizeof mac);
  if (wrongMac) {
    mac[5] = static_cast<std::uint8_t>(~mac[5]);
  }
  // Order matters to the host, which reads values by substring search: the address values stop
  // only at a byte that is not a digit or ".", so each is followed by a short item whose length
  // byte is below "."; PASSWORDSET is read by its first letter and so may be followed by
  // anything. The attached flags come last: the host looks for a "1" in the five bytes after the
  // port token, which here are the next flag item's length byte and "CPD", or the end.
  if (record.announceIpAddress) {
    const std::string &address =
        record.announcedIpAddress.empty() ? record.ipAddress : record.announcedIpAddress;
    PutItem(out, "IPADDRESS=" + address.substr(0, kMaxAnnouncedAddress));
  }
  if (record.announceNetmask) {
    PutItem(out, "IPNETMASK=" + record.netmask);
  }
  PutItem(out, "IPGATEWAY=" + record.gateway);
  PutItem(out, std::string("PASSWORDSET=") + (record.passwordSet ? "true" : "false"));
  PutItem(out, QuotedItem("IPNAME=", record.ipName));
  PutItem(out, QuotedItem("MACLAA=", record.macLaa));
  PutItem(out, QuotedItem("MACUAA=", ReversedMacText(mac)));
  PutItem(out, QuotedItem("ADAPTERTYPE=", record.adapterType));
  PutItem(out, QuotedItem("IPADDRSOURCE=", record.addressSource));
  PutItem(out, QuotedItem("OEMBYTE=", record.oemByte));
  PutItem(out, QuotedItem("ADAPTERNAME=", record.adapterName));
  const std::size_t ports = record.ports.size() < 4 ? record.ports.size() : 4;
  for (std::size_t i = 0; i < ports; ++i) {
    const PortRecord &port = record.ports[i];
    PutItem(out, QuotedItem("STRID=" + std::to_string(port.number) + " ", port.productText));
  }
  for (std::size_t i = 0; i < ports; ++i) {
    const PortRecord &port = record.ports[i];
    PutItem(out, QuotedItem("PRINTERVIDPID=" + std::to_string(port.number) + " ", port.vidPidText));
  }
  for (std::size_t i = 0; i < ports; ++i) {
    const PortRecord &port = record.ports[i];
    PutItem(out, "CPDATTACHED=" + std::to_string(port.number) + (port.attached ? " 1" : " 0"));
  }
  PutBE16At(out, lengthOffset, static_cast<std::uint16_t>(out.size() - lengthOffset - 2));
  return out;
}

ConfigOutcome Configure(const DeviceRecord &record, const std::uint8_t *data, std::size_t length) {
  ConfigOutcome outcome;
  // A message that does not hold what its lengths declare, or another command, is dropped.
  if (data == nullptr || length < 34 || std::memcmp(data, "HCP1", 4) != 0 ||
      GetBE16(data + 26) != 1) {
    return outcome;
  }
  const std::size_t passwordLength = GetBE16(data + 28);
  if (!Fits(30, passwordLength + 4, length)) {
    return outcome;
  }
  const std::size_t textLength = GetBE32(data + 30 + passwordLength);
  if (!Fits(34 + passwordLength, textLength, length)) {
    return outcome;
  }
  if (std::memcmp(data + 6, record.mac.data(), 6) != 0) {
    return outcome; // another device's message: it stays silent
  }
  outcome.answered = true;

  const std::string password(reinterpret_cast<const char *>(data + 30), passwordLength);
  const std::string text(reinterpret_cast<const char *>(data + 34 + passwordLength), textLength);
  std::string address, netmask, gateway;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    const std::string line = text.substr(start, end - start);
    const std::size_t space = line.find(' ');
    if (space != std::string::npos) {
      const std::string key = line.substr(0, space);
      const std::string value = line.substr(space + 1);
      if (key == "IPADDRESS") {
        address = value;
      } else if (key == "IPNETMASK") {
        netmask = value;
      } else if (key == "IPGATEWAY") {
        gateway = value;
      }
    }
    start = end + 1;
  }

  if (record.passwordSet && password != record.password) {
    outcome.result = kConfigWrongPassword;
  } else if (!IsAddress(address) || !IsAddress(netmask) || !IsAddress(gateway)) {
    outcome.result = kConfigBadAddress;
  } else {
    outcome.result = kConfigAccepted;
    outcome.ipAddress = address;
    outcome.netmask = netmask;
    outcome.gateway = gateway;
  }
  const bool accepted = outcome.result == kConfigAccepted;

  Bytes &out = outcome.answer;
  PutText(out, "HCP1");
  PutBE16(out, 1);
  out.insert(out.end(), record.mac.begin(), record.mac.end());
  out.insert(out.end(), data + 12, data + 18);
  PutBE32(out, AddressBytes(record.ipAddress));
  PutBE16(out, 0);
  PutBE16(out, 0x8001);
  out.push_back(outcome.result);
  out.push_back(0);
  PutBE16(out, 0);
  const std::size_t itemsOffset = out.size();
  PutBE32(out, 0);
  PutItem(out, "IPADDRESS=" + (accepted ? address : record.ipAddress));
  PutItem(out, "IPNETMASK=" + (accepted ? netmask : record.netmask));
  PutItem(out, "IPGATEWAY=" + (accepted ? gateway : record.gateway));
  PutBE32At(out, itemsOffset, static_cast<std::uint32_t>(out.size() - itemsOffset - 4));
  return outcome;
}

Bytes Hbn3Answer(const DeviceRecord &record, const std::uint8_t *data, std::size_t length) {
  const RequestKind kind = Classify(data, length);
  switch (kind) {
  case RequestKind::kPing:
  case RequestKind::kRequestScan:
    return Hbn3Header(data, GetBE32(data + 16) | kReplyBit, 0);
  case RequestKind::kHostList: {
    Bytes out = Hbn3Header(data, 4 | kReplyBit, 4);
    PutBE32(out, record.hostListStatus);
    return out;
  }
  case RequestKind::kStatusCache: {
    Bytes status = record.status;
    if (status.size() >= 28) {
      status[26] = static_cast<std::uint8_t>(record.printerId >> 8);
      status[27] = static_cast<std::uint8_t>(record.printerId & 0xFF);
    }
    Bytes out = Hbn3Header(data, 1 | kReplyBit, static_cast<std::uint32_t>(16 + status.size()));
    out.insert(out.end(), record.mac.begin(), record.mac.end());
    PutBE16(out, 0); // reserved
    PutBE32(out, AddressBytes(record.ipAddress));
    PutBE32(out, static_cast<std::uint32_t>(status.size()));
    out.insert(out.end(), status.begin(), status.end());
    return out;
  }
  default:
    return Bytes();
  }
}

Bytes Garbage(std::size_t length, std::uint32_t seed) {
  Bytes out(length);
  std::uint32_t state = seed * 2654435761u + 0x9E3779B9u;
  for (std::size_t i = 0; i < length; ++i) {
    // xorshift: cheap, repeatable, and nothing like a tag or a KEY=value item.
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    out[i] = static_cast<std::uint8_t>(state >> 24);
  }
  if (length > 0) {
    out[0] = 0xFF; // no tag begins with FF, so the answer is never taken for a message
  }
  return out;
}

} // namespace kivsim
