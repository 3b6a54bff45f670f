// The HCP configuration message, which sets a device's IPv4 address, net mask and gateway, and
// the text record it carries.
#ifndef KIV_HCP_KIVHCPCONFIGHEADER_H
#define KIV_HCP_KIVHCPCONFIGHEADER_H

#include <memory>
#include <string>

#include "Common/KivTypes.h"
#include "CommonFiles/KivPortHeader.h"

class KivNetHelperUtils;

// The text record of a configuration message: three lines "IPADDRESS <address>",
// "IPNETMASK <mask>" and "IPGATEWAY <gateway>", each ended by 0x0A, no terminator. Key and value
// are separated by a space (the device's answers use "="). Values are sent as held, unchecked.
//
// Failures throw KivWrapperException with class number 0x50000 and function number 0x700.
class KIV_EXPORT KivHCPConfigText {
public:
  // Function number of GetHCPConfigText.
  static constexpr UInt32 kFnGetHCPConfigText = 0x700;
  // The room the two-argument GetHCPConfigText assumes (what the message builder provides).
  static constexpr int kDefaultRoom = 1024;

  // Three empty values.
  KivHCPConfigText();
  // Stores each argument that is not null; the others stay empty.
  KivHCPConfigText(const char *ipAddress, const char *ipNetMask, const char *ipGateway);

  // Empties the three values.
  void CleanUp();

  // Each stores its text; a null argument leaves the value unchanged.
  void SetIPAddress(const char *ipAddress);
  void SetIPNetMask(const char *ipNetmask);
  void SetIPGateWay(const char *ipGateWay);

  // Length of the record: 33 plus the lengths of the three values.
  size_t GetRecordLength() const;

  // Writes the record into `container`, a room of `room` bytes, and its length into `*len`.
  // Throws BUFFER_NULL (null `container` or `len`) and COPY_ERROR (the record is longer than
  // `room`; nothing is written then and `*len` is unchanged).
  void GetHCPConfigText(unsigned char *container, int *len, int room);

  // The same with a room of kDefaultRoom (1024) bytes, which `container` must have.
  void GetHCPConfigText(unsigned char *container, int *len);

private:
  std::string mIPAdress;
  std::string mIPNetMask;
  std::string mIPGateway;
};

// The configuration message "HCP1". It names the device by its MAC address and carries the
// device password and a text record (KivHCPConfigText). Layout, integers big-endian and addresses
// first octet first, P the password's and T the record's length:
//   0 identifier (4) | 4 version (2) | 6 destination MAC (6) | 12 source MAC, zero (6) |
//   18 host address (4) | 22 destination address (4) | 26 command (2) | 28 P (2) |
//   30 password (P) | 30+P T (4) | 34+P record (T)
// The source address is the host's default IPv4 address, read when the object is made.
//
// Ownership: the header keeps its own copies of the password and the record and its own
// host-information object, and releases them when destroyed. It cannot be copied.
//
// Failures throw KivWrapperException with class number 0x40000 and the member's function number.
class KIV_EXPORT KivHCPConfigHeader : public KivPortHeader {
public:
  // Function numbers of the throwing members.
  static constexpr UInt32 kFnGetDataHeader = 0x500;
  static constexpr UInt32 kFnSetDestUAA = 0x700; // the conversion it uses cannot fail
  static constexpr UInt32 kFnSetEncryptedPassword = 0x900;
  static constexpr UInt32 kFnSetConfigTextRecord = 0xA00;
  // Length of the message without password and record.
  static constexpr int kFixedLength = 34;
  // Rooms below this are refused before anything else is looked at.
  static constexpr int kMinimumRoom = 24;
  // Longest password: its length travels in 16 bits.
  static constexpr UInt32 kMaxPasswordLength = 0xFFFF;

  // Identifier 0x48435031 ("HCP1") and version 1, then Init().
  // Throws the int -1 when the host has no default IPv4 interface.
  KivHCPConfigHeader();
  // The given identifier and version, then Init(). Throws the int -1 likewise.
  KivHCPConfigHeader(UInt32 hcpID, UInt16 version);
  ~KivHCPConfigHeader() override;
  KivHCPConfigHeader(const KivHCPConfigHeader &) = delete;
  KivHCPConfigHeader &operator=(const KivHCPConfigHeader &) = delete;

  // Replaces the identifier and the version.
  void SetHCPConfigIDwithVersion(UInt32 hcpID, UInt16 version);

  // Back to an empty message for the current host: destination address 0, command 1, both MAC
  // addresses zero, no password, no record, and the host's address read from a new snapshot of
  // the default interface. Throws the int -1 when the host has none; the header is then unchanged.
  void Init();

  // Reads the host's address again from the header's snapshot.
  void HostCurrentIPAddr();

  // Sets the destination MAC from its text, 12 digits without separators
  // (KivNetHelperUtils::GetExactHexValOfString: "0"-"9", "A"-"Z"; anything else, and whatever a
  // short or null text lacks, counts as 0).
  void SetDestUAA(const unsigned char *destMac);

  // Sets the destination address from dotted text; a null or invalid text gives 255.255.255.255.
  void SetDestIP(const unsigned char *destIP);

  // Keeps a copy of the `passwordlen` password bytes, sent as given (the library does not
  // encrypt). Length 0 removes the password. Throws COPY_ERROR when `passwordlen` is above 65535
  // (its 16-bit length field could not carry it), when `password` is null with a non-zero length
  // or when there is no memory; the header is then unchanged.
  void SetEncryptedPassword(const unsigned char *password, UInt32 passwordlen);

  // Keeps a copy of the `configtxtreclen` record bytes. Length 0 removes the record. Throws
  // COPY_ERROR when the message would grow past the largest int, when `configtxtrec` is null with
  // a non-zero length or when there is no memory; the header is then unchanged.
  void SetConfigTextRecord(const unsigned char *configtxtrec, UInt32 configtxtreclen);

  // Length of the whole message: 34 + password length + record length.
  int GetHeaderLength() const;

  // Writes the whole message into `dataHeader`, a room of `dataHeaderlen` bytes.
  // Throws BUFFER_NULL (null room) and BUFFER_SIZE_ERROR (a room below 24 bytes or below
  // GetHeaderLength(); nothing is written then).
  void GetDataHeader(unsigned char *dataHeader, int dataHeaderlen) override;

private:
  UInt32 mHCPIdentifier;
  UInt16 mVersion;
  UInt8 mMacDestAddr[6];
  UInt8 mMacSourceAddr[6];
  UInt32 mSourceIP;
  UInt32 mDestIP;
  UInt16 mCommand;
  UInt16 mPasswordLength;
  std::unique_ptr<unsigned char[]> mEncryptedPassword;
  UInt32 mTxtRecordLegth;
  std::unique_ptr<unsigned char[]> mConfigTextRecord;
  std::unique_ptr<KivNetHelperUtils> mKivNetHelper;
};

#endif // KIV_HCP_KIVHCPCONFIGHEADER_H
