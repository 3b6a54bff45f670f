// Received messages as devices send them (HBN3 and HCP answers) and a parser holding one.
#ifndef KIV_TESTS_SUPPORT_MESSAGEVECTORS_H
#define KIV_TESTS_SUPPORT_MESSAGEVECTORS_H

#include <memory>

#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Common/Constants/KivCommunicationConstants.h"
#include "support/TestSupport.h"

namespace kivtest {

// Ping reply: port information 1, channel 0, command 0x80000003.
inline Bytes PingReply() { return Hex("48424E33 00000001 00000000 00000000 80000003 00000000"); }

// Request-scan reply: port information 4, channel 2, time stamp 9.
inline Bytes RequestScanReply() {
  return Hex("48424E33 00000004 00000002 00000009 80000005 00000000");
}

// Host-list answer: port information 3, channel 2, the device's outcome code 2.
inline Bytes HostListAnswer() {
  return Hex("48424E33 00000003 00000002 00000000 80000004 00000004 00000002");
}

// A device's scan request: port information 1, channel 2, time stamp 256, report 08 07 .. 01.
inline Bytes ScanRequest() {
  return Hex("48424E33 00000001 00000002 00000100 00000005 00000008 0807060504030201");
}

// Status-cache answer: port information 1, channel 5, adapter 00 04 00 0A 1B 2C at 192.168.1.20,
// 30 status bytes (zero bytes among them) whose bytes 26 and 27 are the printer identifier 12 AB.
inline Bytes StatusAnswer() {
  return Hex("48424E33 00000001 00000005 00000000 80000001 0000002E 0004000A1B2C 0000 C0A80114"
             "0000001E 00010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 1819 12AB 1C1D");
}

typedef std::vector<std::string> Items;

// An HCP discovery answer: a DNS response header, the name _host-config._udp.local and a TXT
// record of `items`, each with its length byte in front.
inline Bytes DiscoveryAnswer(const Items &items) {
  Bytes txt;
  for (const std::string &item : items) {
    txt.push_back(static_cast<unsigned char>(item.size()));
    txt.insert(txt.end(), item.begin(), item.end());
  }
  // _host-config._udp.local, TXT, class IN with the cache-flush bit, 4500 s.
  return Join(
      {Hex("0000 8400 0000 0001 0000 0000 0C 5F686F73742D636F6E666967 04 5F756470 05 6C6F63616C"
           "00 0010 8001 00001194"),
       Bytes{static_cast<unsigned char>(txt.size() >> 8), static_cast<unsigned char>(txt.size())},
       txt});
}

// The items of a device with four ports of which 0 and 2 are attached, grouped per port.
inline Items DeviceItems() {
  // clang-format off
  return {
      "IPADDRESS=192.168.1.20", "IPNETMASK=255.255.255.0", "IPGATEWAY=192.168.1.1",
      "IPNAME=\"KIVMFC-4A1B2C\"", "MACLAA=\"000000000000\"", "MACUAA=\"00200048F13D\"",
      "ADAPTERTYPE=\"ETHERNET\"", "IPADDRSOURCE=dhcp",
      "CPDATTACHED=0 1", "STRID=0 \" KIV MFC-8890DW\"", "PRINTERVIDPID=0 \"04F9:0248\"",
      "CPDATTACHED=1 0", "STRID=1 \"KIV SCANNER\"", "PRINTERVIDPID=1 \"04F9:0249\"",
      "CPDATTACHED=2 1", "STRID=2 \"KIV FAX-2840\"", "PRINTERVIDPID=2 \"04F9:024A\"",
      "CPDATTACHED=3 0", "STRID=3 \"none\"", "PRINTERVIDPID=3 \"0000:0000\"",
      "PASSWORDSET=TRUE", "ADAPTERNAME=\"KIV NC-8800h\"", "OEMBYTE=0"};
  // clang-format on
}

// The text record a device echoes in its configuration answer.
inline std::string ConfigurationText() {
  return "IPADDRESS 10.0.0.5\nIPNETMASK 255.0.0.0\nIPGATEWAY 10.0.0.1\n";
}

// An HCP configuration answer: the header with the device's result byte at 26, then the text
// record it echoes (shorter than 256 bytes).
inline Bytes ConfigurationAnswer(UInt8 result, const std::string &text) {
  return Join({Text("HCP1"), Hex("0001 00804A1B2C3D 000000000000 C0A80114 C0A8010A"),
               Bytes{result, 0x01, 0, 0, 0, 0, 0, static_cast<unsigned char>(text.size())},
               Text(text)});
}

// A parser holding a copy of exactly `bytes` (a read past it is a sanitizer report); the container
// it came through is released first.
inline std::unique_ptr<KivHBN3Disassembler> Holding(const Bytes &bytes) {
  static const unsigned char kNothing = 0;
  KivNetBuffer buffer;
  KivNetBufferStorageGuard guard(buffer);
  buffer.SetBuffer(bytes.empty() ? &kNothing : bytes.data(), static_cast<int>(bytes.size()));
  return std::unique_ptr<KivHBN3Disassembler>(new KivHBN3Disassembler(buffer));
}

// A record's device entries as text: |{iFlag,strProdID,strOEMByte,strCPDAttached,
// strPrintrVidPid,iPortInfo} per entry.
inline std::string Entries(const KivNetRecord &r) {
  std::string text;
  for (const DeviceSpecific &d : r.vecDeviceSpecific) {
    text += "|{" + std::to_string(d.iFlag) + "," + d.strProdID + "," + d.strOEMByte + "," +
            d.strCPDAttached + "," + d.strPrintrVidPid + "," + std::to_string(d.iPortInfo) + "}";
  }
  return text;
}

// A record as text, for comparisons with readable failures: iResponse|iPortInfo|strIPAddr|
// strIPNetMask|strIPGateway|strIPName|strMacLaa|strMacUaa|strAdapterType|strIPAddrSrc|strOEMByte|
// strPwdSet|strProdID|strAdapterName|strCPDAttached|strPrintrVidPid, then the entries.
inline std::string Describe(const KivNetRecord &r) {
  std::string text = std::to_string(r.iResponse) + "|" + std::to_string(r.iPortInfo);
  for (const std::string *field :
       {&r.strIPAddr, &r.strIPNetMask, &r.strIPGateway, &r.strIPName, &r.strMacLaa, &r.strMacUaa,
        &r.strAdapterType, &r.strIPAddrSrc, &r.strOEMByte, &r.strPwdSet, &r.strProdID,
        &r.strAdapterName, &r.strCPDAttached, &r.strPrintrVidPid}) {
    text += "|" + *field;
  }
  return text + Entries(r);
}

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_MESSAGEVECTORS_H
