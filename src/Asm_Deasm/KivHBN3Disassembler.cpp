// The parser of HBN3 answers, device scan requests and HCP answers.
#include "Asm_Deasm/KivHBN3Disassembler.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "CommonFiles/KivOwnedBlock.h"
#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivWrapperException.h"
#include "HBN3/KivHBN3PayLoad.h"
#include "HelperFiles/KivNetHelperUtils.h"

namespace {

// The outcome code of a host-list answer, the first payload field.
constexpr int kHostListStatusLength = 4;

// Longest unquoted item value; longer runs are cut.
constexpr size_t kMaxRunLength = 31;

// A port counts as attached when a "1" is among this many bytes after its port token's space.
constexpr size_t kAttachedFlagWindow = 5;

// Number of per-port occurrences a discovery answer may carry; later ones are ignored.
constexpr int kPortSlots = 4;

// The keys of an HCP answer. A value starts one byte (the separator) after its key.
constexpr char kKeyIPAddress[] = "IPADDRESS";
constexpr char kKeyIPNetMask[] = "IPNETMASK";
constexpr char kKeyIPGateway[] = "IPGATEWAY";
constexpr char kKeyIPName[] = "IPNAME";
constexpr char kKeyMacLaa[] = "MACLAA";
constexpr char kKeyMacUaa[] = "MACUAA";
constexpr char kKeyAdapterType[] = "ADAPTERTYPE";
constexpr char kKeyIPAddrSource[] = "IPADDRSOURCE";
constexpr char kKeyStrID[] = "STRID";
constexpr char kKeyOEMByte[] = "OEMBYTE";
constexpr char kKeyPasswordSet[] = "PASSWORDSET";
constexpr char kKeyAdapterName[] = "ADAPTERNAME";
constexpr char kKeyCPDAttached[] = "CPDATTACHED";
constexpr char kKeyPrinterVidPid[] = "PRINTERVIDPID";

// Where the value of the key found at `keyPosition` starts.
template <size_t N> size_t ValueStart(size_t keyPosition, const char (&)[N]) {
  return keyPosition + N; // N - 1 key characters and the separator
}

// Any failure inside the HCP parse; the boundary of ParseHCPResponse gives it its one code.
[[noreturn]] void FailHCP() {
  throw KivWrapperException(kClassHBN3Disassembler, KivHBN3Disassembler::kFnParseHCPResponse,
                            COPY_ERROR);
}

bool IsUpper(unsigned char c) { return c >= 'A' && c <= 'Z'; }

bool IsAddressCharacter(unsigned char c) { return (c >= '0' && c <= '9') || c == '.'; }

// A port token read the way devices mean it: leading white space skipped, decimal digits up to the
// first other character, no digits 0. A value too large for 32 bits stays at 0xFFFFFFFF.
int PortNumber(const std::string &token) {
  size_t i = 0;
  while (i < token.size() && (token[i] == ' ' || (token[i] >= '\t' && token[i] <= '\r'))) {
    ++i;
  }
  unsigned long long value = 0;
  for (; i < token.size() && token[i] >= '0' && token[i] <= '9'; ++i) {
    value = value * 10 + static_cast<unsigned long long>(token[i] - '0');
    if (value > 0xFFFFFFFFull) {
      value = 0xFFFFFFFFull;
    }
  }
  return static_cast<int>(static_cast<UInt32>(value));
}

// Devices send their universal MAC with the bits of each byte in reverse order.
unsigned char ReverseBits(unsigned char b) {
  unsigned char out = 0;
  for (int bit = 0; bit < 8; ++bit) {
    if ((b & (1u << bit)) != 0) {
      out = static_cast<unsigned char>(out | (0x80u >> bit));
    }
  }
  return out;
}

// The quoted text of a per-port item whose value starts at `start`: after the port token and its
// space, between double quotes. `open` receives the opening quote's position, from which the next
// occurrence is searched. The text is cut out only when `needed` (its slot is in use); a missing
// space or opening quote fails either way, a missing closing quote only when needed.
std::string QuotedPortText(const std::string &text, size_t start, bool needed, size_t &open) {
  // The port token before the space is not needed here: the slot comes from the item's order.
  const size_t space = text.find(' ', start);
  if (space == std::string::npos) {
    FailHCP();
  }
  open = text.find('"', space + 1);
  if (open == std::string::npos) {
    FailHCP();
  }
  if (!needed) {
    return std::string();
  }
  // The closing quote is searched from the second byte of the text, so the text is never empty.
  const size_t close = text.find('"', open + 2);
  if (close == std::string::npos) {
    FailHCP();
  }
  return text.substr(open + 1, close - open - 1);
}

// The universal MAC of an answer (12 hexadecimal digits, bits of each byte reversed) in the
// record's form: "ET" and 12 lowercase digits in ordinary bit order.
std::string ConvertMacUaa(const std::string &value) {
  // The conversion reads a C string of 12 characters: a shorter value, or one with a zero byte,
  // has the digit 0 at every position it lacks.
  char digits[KivNetHelperUtils::kMacTextLength + 1] = {0};
  std::memcpy(digits, value.data(),
              value.size() < sizeof(digits) - 1 ? value.size() : sizeof(digits) - 1);
  // Constructed for the conversion as the host-information functions are; a host without a
  // default interface throws here, which the caller turns into the parse's failure.
  KivNetHelperUtils helper;
  unsigned char bytes[KivNetHelperUtils::kMacLength];
  helper.ConvertCharStrToHexVal(digits, bytes);
  char out[sizeof "ET" + 2 * KivNetHelperUtils::kMacLength];
  std::snprintf(out, sizeof out, "ET%02x%02x%02x%02x%02x%02x", ReverseBits(bytes[0]),
                ReverseBits(bytes[1]), ReverseBits(bytes[2]), ReverseBits(bytes[3]),
                ReverseBits(bytes[4]), ReverseBits(bytes[5]));
  return std::string(out);
}

} // namespace

KivHBN3Disassembler::KivHBN3Disassembler()
    : mHeaderType(0), mCommand(0), mLength(0), mDataStream(), mAddressState(false) {}

KivHBN3Disassembler::KivHBN3Disassembler(KivNetBuffer &msgObject) : KivHBN3Disassembler() {
  SetMessage(&msgObject);
}

KivHBN3Disassembler::~KivHBN3Disassembler() = default;

void KivHBN3Disassembler::SetMessage(KivNetBuffer *msgObject) {
  if (msgObject == nullptr) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnSetMessage, BUFFER_NULL);
  }
  const int length = msgObject->GetBufferLength();
  if (length < 0) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnSetMessage, COPY_ERROR);
  }
  // The new copy is complete before the old one goes, so a failure keeps the earlier message. An
  // empty container still gives a block, so the parser never holds a null message once it has
  // one.
  mDataStream = kiv::CopyToBlock(msgObject->GetBufferRef(), static_cast<size_t>(length),
                                 kClassHBN3Disassembler, kFnSetMessage);
  mLength = length;

  // Classification reads only what arrived: a field the message is too short for reads as 0,
  // as in the container. The parse operations check their own fields.
  mHeaderType = kiv::ReadBE32At(mDataStream.get(), mLength, kHBN3OffsetTag);
  if (mHeaderType == kHeaderTypeHCP1) {
    mCommand = kiv::ReadBE32At(mDataStream.get(), mLength, kHCPOffsetCommand);
  } else if (mHeaderType == kHeaderTypeHBN3) {
    mCommand = kiv::ReadBE32At(mDataStream.get(), mLength, kHBN3OffsetCommand);
  }
}

// ---- HBN3 answers ----

namespace {

// The port information and channel every HBN3 answer carries, once the message is known to hold
// the `needed` bytes its parser reads; a shorter message fails with COPY_ERROR of `function`.
HBNResponseInfo HeaderFields(const unsigned char *message, int length, int needed,
                             UInt32 function) {
  if (!kiv::Fits(0, needed, length)) {
    throw KivWrapperException(kClassHBN3Disassembler, function, COPY_ERROR);
  }
  HBNResponseInfo info;
  info.iPortInfo = kiv::ReadBE32(message + kHBN3OffsetPortInfo);
  info.iChannelID = kiv::ReadBE32(message + kHBN3OffsetChannel);
  return info;
}

} // namespace

HBNResponseInfo KivHBN3Disassembler::ParsePingResponse() {
  HBNResponseInfo info = HeaderFields(mDataStream.get(), mLength,
                                      kHBN3OffsetCommand + kHBN3FieldLength, kFnParsePingResponse);
  info.iStatus = kiv::ReadBE32(mDataStream.get() + kHBN3OffsetCommand) == kCmdPingReply ? 1 : 0;
  return info;
}

HBNResponseInfo KivHBN3Disassembler::ParseRequestScanResponse() {
  HBNResponseInfo info =
      HeaderFields(mDataStream.get(), mLength, kHBN3OffsetCommand + kHBN3FieldLength,
                   kFnParseRequestScanResponse);
  info.iStatus =
      kiv::ReadBE32(mDataStream.get() + kHBN3OffsetCommand) == kCmdRequestScanReply ? 1 : 0;
  return info;
}

HBNResponseInfo KivHBN3Disassembler::ParseHostListEntryResponse() {
  HBNResponseInfo info =
      HeaderFields(mDataStream.get(), mLength, kHBN3OffsetPayload + kHostListStatusLength,
                   kFnParseHostListEntryResponse);
  // The device's outcome code, passed on without interpretation.
  info.iStatus = kiv::ReadBE32(mDataStream.get() + kHBN3OffsetPayload);
  return info;
}

HBNResponseInfo KivHBN3Disassembler::ParseRequestScan() {
  HBNResponseInfo info = HeaderFields(mDataStream.get(), mLength,
                                      kHBN3OffsetPayload + kHBN3ReportLength, kFnParseRequestScan);
  info.iTimeStamp = kiv::ReadBE32(mDataStream.get() + kHBN3OffsetTimeStamp);
  // The report is the one field not in network order: least significant byte first.
  info.iReport = kiv::ReadLE64(mDataStream.get() + kHBN3OffsetPayload);
  return info;
}

StatCacheResponse KivHBN3Disassembler::ParseStatusCacheResponse() {
  try {
    if (!kiv::Fits(0, kHBN3HeaderLength, mLength)) {
      throw KivWrapperException(kClassHBN3Disassembler, kFnParseStatusCacheResponse, COPY_ERROR);
    }
    KivHBN3StatusCacheResponsePayload payload(mDataStream.get() + kHBN3HeaderLength,
                                              mLength - kHBN3HeaderLength);
    StatCacheResponse response;
    response.iPortInfo = kiv::ReadBE32(mDataStream.get() + kHBN3OffsetPortInfo);
    response.iChannelID = kiv::ReadBE32(mDataStream.get() + kHBN3OffsetChannel);
    // A cut-short answer (declared length beyond what arrived, or negative) holds no status
    // bytes; the record then tells exactly what it carries: nothing.
    const int held = payload.GetHeldStatusLength();
    response.strPayload.assign(static_cast<size_t>(held), '\0');
    if (held > 0) {
      payload.GetDataPayload(reinterpret_cast<unsigned char *>(&response.strPayload[0]), held);
    }
    response.strAdapterUAA = payload.GetStrAdapterUAA();
    response.strAdapterIPAddr = payload.GetIPAddressString();
    response.iPayloadLength = held;
    response.strPrinterID = payload.GetPrinterID();
    response.iReserved = 0;
    return response;
  } catch (...) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnParseStatusCacheResponse, COPY_ERROR);
  }
}

// ---- Value extraction ----

std::string KivHBN3Disassembler::copyData(std::string strObject, int iLen, int iIndex) {
  if (iLen < 0 || iIndex < 0 || static_cast<size_t>(iIndex) > strObject.size()) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnCopyData, COPY_ERROR);
  }
  if (iLen == 0) {
    return std::string();
  }
  try {
    return strObject.substr(static_cast<size_t>(iIndex), static_cast<size_t>(iLen) - 1);
  } catch (...) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnCopyData, COPY_ERROR);
  }
}

std::string KivHBN3Disassembler::getValue(std::string strStream, int iIndex) {
  // A value that would start past the message is refused like a copy past the end; one that
  // starts exactly at the end is empty.
  if (iIndex < 0 || iIndex > mLength) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnCopyData, COPY_ERROR);
  }
  if (iIndex < mLength && mDataStream[iIndex] == '"') {
    // No closing quote gives a negative length, which copyData refuses.
    const size_t close = strStream.find('"', static_cast<size_t>(iIndex) + 1);
    const int length = close == std::string::npos ? -1 : static_cast<int>(close) - iIndex;
    return copyData(strStream, length, iIndex + 1);
  }
  // Devices write keys in uppercase and unquoted values without it, so an uppercase letter is
  // where the next item begins: the length bytes of a text record, zero bytes and spaces belong
  // to the value. Bytes 0x80 and above are text, not a key.
  std::string value;
  for (int i = iIndex; i < mLength && value.size() < kMaxRunLength; ++i) {
    const unsigned char c = mDataStream[i];
    if (IsUpper(c) || (mAddressState && !IsAddressCharacter(c))) {
      break;
    }
    value.push_back(static_cast<char>(c));
  }
  return value;
}

// ---- HCP answers ----

UInt32 KivHBN3Disassembler::ParseHCPResponse(UInt32 iType, KivNetRecord &recDiscovered) {
  // Whatever goes wrong inside (a missing key, a cut value, no memory, no host interface for the
  // MAC conversion) reaches the caller as the one code of this operation.
  try {
    return ReadHCPAnswer(iType, recDiscovered);
  } catch (...) {
    mAddressState = false;
    FailHCP();
  }
}

UInt32 KivHBN3Disassembler::ReadHCPAnswer(UInt32 iType, KivNetRecord &rec) {
  // The answer is searched as a whole, zero bytes included: a text record's length bytes and the
  // DNS header around it may hold anything.
  const std::string text = mLength > 0
                               ? std::string(reinterpret_cast<const char *>(mDataStream.get()),
                                             static_cast<size_t>(mLength))
                               : std::string();
  const size_t npos = std::string::npos;
  const size_t posIPAddress = text.find(kKeyIPAddress);
  const size_t posIPNetMask = text.find(kKeyIPNetMask);
  const size_t posIPGateway = text.find(kKeyIPGateway);
  const size_t posIPName = text.find(kKeyIPName);

  // Reads the value at `start` (past the message fails).
  auto valueAt = [&](size_t start) -> std::string {
    if (start > text.size()) {
      FailHCP();
    }
    return getValue(text, static_cast<int>(start));
  };

  if (iType != kHCPDiscoveryResponse) {
    if (!kiv::Fits(kHCPOffsetResult, 1, mLength)) {
      FailHCP();
    }
    rec.iResponse = mDataStream[kHCPOffsetResult];
    if (rec.iResponse != 0) {
      // The device refused the configuration; its answer carries no addresses to read.
      return 0;
    }
  }

  if (posIPAddress == npos || posIPNetMask == npos || posIPGateway == npos) {
    FailHCP();
  }
  // Addresses are sent unquoted and may be followed directly by a text record's length byte,
  // which a digit-or-dot run leaves out.
  isAddress(true);
  rec.strIPAddr = valueAt(ValueStart(posIPAddress, kKeyIPAddress));
  rec.strIPNetMask = valueAt(ValueStart(posIPNetMask, kKeyIPNetMask));
  rec.strIPGateway = valueAt(ValueStart(posIPGateway, kKeyIPGateway));
  isAddress(false);

  if (iType != kHCPDiscoveryResponse) {
    return 0;
  }

  const size_t posMacLaa = text.find(kKeyMacLaa);
  const size_t posMacUaa = text.find(kKeyMacUaa);
  const size_t posAdapterType = text.find(kKeyAdapterType);
  const size_t posIPAddrSource = text.find(kKeyIPAddrSource);
  const size_t posStrID = text.find(kKeyStrID);
  const size_t posOEMByte = text.find(kKeyOEMByte);
  const size_t posPasswordSet = text.find(kKeyPasswordSet);
  const size_t posAdapterName = text.find(kKeyAdapterName);
  const size_t posCPDAttached = text.find(kKeyCPDAttached);
  const size_t posPrinterVidPid = text.find(kKeyPrinterVidPid);
  for (size_t position :
       {posIPName, posMacLaa, posMacUaa, posAdapterType, posIPAddrSource, posStrID, posOEMByte,
        posPasswordSet, posAdapterName, posCPDAttached, posPrinterVidPid}) {
    if (position == npos) {
      FailHCP();
    }
  }

  rec.strIPName = valueAt(ValueStart(posIPName, kKeyIPName));
  rec.strMacLaa = valueAt(ValueStart(posMacLaa, kKeyMacLaa));
  rec.strMacUaa = ConvertMacUaa(valueAt(ValueStart(posMacUaa, kKeyMacUaa)));

  DeviceSpecific slots[kPortSlots];
  for (DeviceSpecific &slot : slots) {
    slot.iFlag = 0;
    slot.iPortInfo = 0;
  }

  // The k-th CPDATTACHED, STRID and PRINTERVIDPID items describe the same port: devices list
  // them in one order, so they are paired by occurrence, not by port number. Each pass moves its
  // search on even past an unused slot, so a detached port does not shift the pairing.
  size_t position = posCPDAttached;
  for (int k = 0; k < kPortSlots && position != npos; ++k) {
    const size_t start = ValueStart(position, kKeyCPDAttached);
    const size_t space = text.find(' ', start);
    if (space == npos) {
      FailHCP();
    }
    const std::string token = text.substr(start, space - start);
    const size_t flagEnd = std::min(space + 1 + kAttachedFlagWindow, text.size());
    if (text.find('1', space + 1) < flagEnd) {
      slots[k].iPortInfo = PortNumber(token);
      slots[k].strCPDAttached = token + " 1";
      slots[k].iFlag = 1;
    }
    position = text.find(kKeyCPDAttached, space + 1);
  }

  // The quoted-text passes: the k-th occurrence of `key`, from `first` on, belongs to slot k; the
  // text is located for every occurrence so the search always advances, and stored for slots in
  // use.
  const auto quotedPass = [&](size_t first, const auto &key, auto store) {
    size_t at = first;
    for (int k = 0; k < kPortSlots && at != npos; ++k) {
      size_t open = 0;
      const std::string quoted =
          QuotedPortText(text, ValueStart(at, key), slots[k].iFlag == 1, open);
      if (slots[k].iFlag == 1) {
        store(slots[k], quoted);
      }
      at = text.find(key, open + 1);
    }
  };
  quotedPass(posStrID, kKeyStrID, [](DeviceSpecific &slot, const std::string &quoted) {
    // Some devices put a space after the opening quote of the product text.
    slot.strProdID = !quoted.empty() && quoted[0] == ' ' ? quoted.substr(1) : quoted;
  });
  quotedPass(
      posPrinterVidPid, kKeyPrinterVidPid,
      [](DeviceSpecific &slot, const std::string &quoted) { slot.strPrintrVidPid = quoted; });

  rec.strAdapterName = valueAt(ValueStart(posAdapterName, kKeyAdapterName));

  // Only the first byte counts, in either case; a quoted value is not a yes or no.
  const size_t passwordAt = ValueStart(posPasswordSet, kKeyPasswordSet);
  const char flag = passwordAt < text.size() ? text[passwordAt] : '\0';
  if (flag == 'F' || flag == 'f') {
    rec.strPwdSet = "FALSE";
  } else if (flag == 'T' || flag == 't') {
    rec.strPwdSet = "TRUE";
  } else {
    rec.strPwdSet = "";
  }

  rec.strAdapterType = valueAt(ValueStart(posAdapterType, kKeyAdapterType));
  rec.strIPAddrSrc = valueAt(ValueStart(posIPAddrSource, kKeyIPAddrSource));
  rec.strOEMByte = valueAt(ValueStart(posOEMByte, kKeyOEMByte));

  for (const DeviceSpecific &slot : slots) {
    if (slot.iFlag == 1) {
      rec.vecDeviceSpecific.push_back(slot);
    }
  }
  return 0;
}
