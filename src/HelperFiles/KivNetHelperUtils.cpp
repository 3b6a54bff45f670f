// The host's own network presence and the MAC and address text conversions.
#include "HelperFiles/KivNetHelperUtils.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// The digit value of a MAC text character, or -1 when it is not one.
int DigitValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'A' && c <= 'Z') {
    return c - 'A' + 10;
  }
  return -1;
}

// Reads up to 12 digits of `text` into `digits`. Positions the text lacks get 0; a character that
// is not a digit leaves its position as it was, which is what gives ConvertCharStrToHexVal its
// memory. Never reads past the text's terminator.
void ReadDigits(const char *text, UInt8 *digits) {
  bool ended = text == nullptr;
  for (int i = 0; i < KivNetHelperUtils::kMacTextLength; ++i) {
    if (!ended && text[i] == '\0') {
      ended = true;
    }
    if (ended) {
      digits[i] = 0;
      continue;
    }
    const int value = DigitValue(text[i]);
    if (value >= 0) {
      digits[i] = static_cast<UInt8>(value);
    }
  }
}

// Letters beyond F make digits above 15; the pair is OR-ed and cut to 8 bits as devices expect
// ("0G" gives 0x10).
void PackDigits(const UInt8 *digits, unsigned char *bytes) {
  for (int j = 0; j < KivNetHelperUtils::kMacLength; ++j) {
    bytes[j] = static_cast<unsigned char>((digits[2 * j] << 4) | digits[2 * j + 1]);
  }
}

} // namespace

KivNetHelperUtils::KivNetHelperUtils() : KivNetHelperUtils(kiv::CurrentHostPlatform()) {}

KivNetHelperUtils::KivNetHelperUtils(const kiv::KivHostPlatform &platform)
    : mPlatform(&platform), mInfo(), mTempMacAddr_val() {
  if (!mPlatform->GetDefaultInterface(mInfo)) {
    // The exported host functions let this reach their callers unchanged.
    throw -1;
  }
}

ether_addr *KivNetHelperUtils::GetHostMACAddress(const char *device) const {
  if (device == nullptr) {
    return nullptr;
  }
  std::vector<kiv::KivLinkAddress> links;
  if (!mPlatform->GetLinkAddresses(links)) {
    return nullptr;
  }
  for (const kiv::KivLinkAddress &link : links) {
    // strncmp stops at the terminator of `device`, so a shorter text never matches.
    if (link.name.empty() || std::strncmp(device, link.name.c_str(), link.name.size()) != 0) {
      continue;
    }
    void *block = std::malloc(kMacLength);
    if (block != nullptr) {
      std::memcpy(block, link.hwAddress, kMacLength);
    }
    return static_cast<ether_addr *>(block);
  }
  return nullptr;
}

std::string KivNetHelperUtils::GetHostIPAddressString() const {
  return mPlatform->AddressToText(mInfo.fAddress);
}

std::string KivNetHelperUtils::GetHostNetMaskString() const {
  return mPlatform->AddressToText(mInfo.fNetmask);
}

std::string KivNetHelperUtils::GetHostBroadcastAddressString() const {
  return mPlatform->AddressToText(mInfo.fBroadcastAddr);
}

std::string KivNetHelperUtils::GetHostGatewayString() const {
  return mPlatform->AddressToText(mInfo.fDefaultGatewayAddr);
}

std::string KivNetHelperUtils::GetHostname() const {
  char name[256];
  if (gethostname(name, sizeof(name)) != 0) {
    return std::string();
  }
  // A name that fills the buffer may come back without a terminator.
  name[sizeof(name) - 1] = '\0';
  return std::string(name);
}

unsigned long KivNetHelperUtils::GetLongFromIP(const std::string &ip) const {
  in_addr address;
  if (inet_aton(ip.c_str(), &address) == 0) {
    return kInvalidAddress;
  }
  return address.s_addr;
}

void KivNetHelperUtils::ConvertCharStrToHexVal(const char *destMac, unsigned char *arrMacAddress) {
  if (arrMacAddress == nullptr) {
    return;
  }
  ReadDigits(destMac, mTempMacAddr_val);
  PackDigits(mTempMacAddr_val, arrMacAddress);
}

void KivNetHelperUtils::GetExactHexValOfString(const char *destMac, UInt8 *val) const {
  ConvertMacText(destMac, val);
}

void KivNetHelperUtils::ConvertMacText(const char *destMac, UInt8 *val) {
  if (val == nullptr) {
    return;
  }
  UInt8 digits[kMacTextLength] = {0};
  ReadDigits(destMac, digits);
  PackDigits(digits, val);
}
