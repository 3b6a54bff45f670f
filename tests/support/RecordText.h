// One-line texts of a device's discovery record, as the library parsed it and as a simulated
// device announces it, so that a test compares whole records at once.
#ifndef KIV_TESTS_SUPPORT_RECORDTEXT_H
#define KIV_TESTS_SUPPORT_RECORDTEXT_H

#include <cstdio>
#include <string>

#include "Common/Constants/KivCommunicationConstants.h"
#include "sim/DeviceRecord.h"

namespace kivtest {

// The fields of a parsed record, "|" between them, one "flag port attached product vid:pid" per
// port at the end.
inline std::string RecordText(const KivNetRecord &r) {
  std::string text = r.strIPAddr + "|" + r.strIPNetMask + "|" + r.strIPGateway + "|" + r.strIPName +
                     "|" + r.strMacUaa + "|" + r.strMacLaa + "|" + r.strAdapterType + "|" +
                     r.strAdapterName + "|" + r.strIPAddrSrc + "|" + r.strOEMByte + "|" +
                     r.strPwdSet;
  for (const DeviceSpecific &p : r.vecDeviceSpecific) {
    text += "|" + std::to_string(p.iFlag) + " " + std::to_string(p.iPortInfo) + " " +
            p.strCPDAttached + " " + p.strProdID + " " + p.strPrintrVidPid;
  }
  return text;
}

// What RecordText gives for the discovery answer of device `d` (its ports all attached).
inline std::string RecordText(const kivsim::DeviceRecord &d) {
  char mac[16];
  std::snprintf(mac, sizeof mac, "ET%02x%02x%02x%02x%02x%02x", d.mac[0], d.mac[1], d.mac[2],
                d.mac[3], d.mac[4], d.mac[5]);
  std::string text = d.ipAddress + "|" + d.netmask + "|" + d.gateway + "|" + d.ipName + "|" + mac +
                     "|" + d.macLaa + "|" + d.adapterType + "|" + d.adapterName + "|" +
                     d.addressSource + "|" + d.oemByte + "|" + (d.passwordSet ? "TRUE" : "FALSE");
  for (const kivsim::PortRecord &p : d.ports) {
    const std::string number = std::to_string(p.number);
    text += "|1 " + number + " " + number + " 1 " + p.productText + " " + p.vidPidText;
  }
  return text;
}

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_RECORDTEXT_H
