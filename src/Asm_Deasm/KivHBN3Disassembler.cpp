// The parser of HBN3 answers, device scan requests and HCP answers.
#include "Asm_Deasm/KivHBN3Disassembler.h"

#include <algorithm>
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

// Any failure inside the HCP parse; the boundary of ParseHCPResponse gives it its one code.
[[noreturn]] void FailHCP() {
  throw KivWrapperException(kClassHBN3Disassembler, KivHBN3Disassembler::kFnParseHCPResponse,
                            COPY_ERROR);
}

bool IsUpper(unsigned char c) { return c >= 'A' && c <= 'Z'; }

bool IsAddressCharacter(unsigned char c) { return (c >= '0' && c <= '9') || c == '.'; }

// A port token read the way devices mean it: leading white space skipped, decimal digits up to the
// first other character, no digits 0. A value too large for 32 bits stays at 0xFFFFFFFF.
int PortNumber(std::string_view token) {
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
  for (unsigned char &b : bytes) {
    b = ReverseBits(b);
  }
  char out[2 + 2 * KivNetHelperUtils::kMacLength] = {'E', 'T'};
  return std::string(out, kiv::WriteLowerHex(out + 2, bytes, sizeof bytes));
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
  return CopyText(strObject, iLen, iIndex);
}

std::string KivHBN3Disassembler::CopyText(std::string_view text, int iLen, int iIndex) {
  if (iLen < 0 || iIndex < 0 || static_cast<size_t>(iIndex) > text.size()) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnCopyData, COPY_ERROR);
  }
  if (iLen == 0) {
    return std::string();
  }
  try {
    return std::string(text.substr(static_cast<size_t>(iIndex), static_cast<size_t>(iLen) - 1));
  } catch (...) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnCopyData, COPY_ERROR);
  }
}

std::string KivHBN3Disassembler::getValue(std::string strStream, int iIndex) {
  return ValueIn(strStream, iIndex);
}

std::string KivHBN3Disassembler::getValue(int iIndex) { return ValueIn(HeldText(), iIndex); }

std::string_view KivHBN3Disassembler::HeldText() const {
  return mLength > 0 ? std::string_view(reinterpret_cast<const char *>(mDataStream.get()),
                                        static_cast<size_t>(mLength))
                     : std::string_view();
}

std::string KivHBN3Disassembler::ValueIn(std::string_view text, int iIndex) {
  // A value that would start past the message is refused like a copy past the end; one that
  // starts exactly at the end is empty.
  if (iIndex < 0 || iIndex > mLength) {
    throw KivWrapperException(kClassHBN3Disassembler, kFnCopyData, COPY_ERROR);
  }
  if (iIndex < mLength && mDataStream[iIndex] == '"') {
    // No closing quote gives a negative length, which the copy refuses.
    const size_t close = text.find('"', static_cast<size_t>(iIndex) + 1);
    const int length = close == std::string_view::npos ? -1 : static_cast<int>(close) - iIndex;
    return CopyText(text, length, iIndex + 1);
  }
  // Devices write keys in uppercase and unquoted values without it, so an uppercase letter is
  // where the next item begins: the length bytes of a text record, zero bytes and spaces belong
  // to the value. Bytes 0x80 and above are text, not a key.
  int end = iIndex;
  while (end < mLength && static_cast<size_t>(end - iIndex) < kMaxRunLength) {
    const unsigned char c = mDataStream[end];
    if (IsUpper(c) || (mAddressState && !IsAddressCharacter(c))) {
      break;
    }
    ++end;
  }
  return std::string(reinterpret_cast<const char *>(mDataStream.get()) + iIndex,
                     static_cast<size_t>(end - iIndex));
}

// ---- HCP answers ----

namespace {

// How the value of an HCP item is read.
enum class HcpRule {
  kAddress,     // the item value rules (getValue) in address mode
  kText,        // the item value rules
  kMacUaa,      // the item value rules, then the MAC conversion
  kYesNo,       // the first value byte only
  kAttached,    // per port: port token, space, attached flag
  kPortText,    // per port: port token, space, quoted text
  kProductText, // as kPortText, less one leading space
};

// One item of an HCP answer: its key, how its value is read, whether a configuration answer
// carries it too, and where the value goes (a field of the record, or of each port's entry).
struct HcpItem {
  const char *key;
  HcpRule rule;
  bool inConfigurationAnswer;
  std::string KivNetRecord::*field;
  std::string DeviceSpecific::*portField;
};

// The items in the order they are read. A discovery answer must carry all fourteen, a
// configuration answer the three addresses. The order is kept on purpose: a parse that fails
// leaves the fields read before the failure in the record, and the attached flags must be known
// before the per-port texts are stored.
const HcpItem kHcpItems[] = {
    // Addresses are sent unquoted and may be followed directly by a text record's length byte,
    // which a digit-or-dot run leaves out.
    {"IPADDRESS", HcpRule::kAddress, true, &KivNetRecord::strIPAddr, nullptr},
    {"IPNETMASK", HcpRule::kAddress, true, &KivNetRecord::strIPNetMask, nullptr},
    {"IPGATEWAY", HcpRule::kAddress, true, &KivNetRecord::strIPGateway, nullptr},
    {"IPNAME", HcpRule::kText, false, &KivNetRecord::strIPName, nullptr},
    {"MACLAA", HcpRule::kText, false, &KivNetRecord::strMacLaa, nullptr},
    {"MACUAA", HcpRule::kMacUaa, false, &KivNetRecord::strMacUaa, nullptr},
    {"CPDATTACHED", HcpRule::kAttached, false, nullptr, &DeviceSpecific::strCPDAttached},
    {"STRID", HcpRule::kProductText, false, nullptr, &DeviceSpecific::strProdID},
    {"PRINTERVIDPID", HcpRule::kPortText, false, nullptr, &DeviceSpecific::strPrintrVidPid},
    {"ADAPTERNAME", HcpRule::kText, false, &KivNetRecord::strAdapterName, nullptr},
    {"PASSWORDSET", HcpRule::kYesNo, false, &KivNetRecord::strPwdSet, nullptr},
    {"ADAPTERTYPE", HcpRule::kText, false, &KivNetRecord::strAdapterType, nullptr},
    {"IPADDRSOURCE", HcpRule::kText, false, &KivNetRecord::strIPAddrSrc, nullptr},
    {"OEMBYTE", HcpRule::kText, false, &KivNetRecord::strOEMByte, nullptr},
};
constexpr size_t kHcpItemCount = sizeof kHcpItems / sizeof kHcpItems[0];

// Reads the items of one HCP answer, held as `text`, with the value rules of `parser`. Every key
// is found once, by its first occurrence (case-sensitive); the value starts one byte (the
// separator, which is not checked) after the key.
class HcpAnswerReader {
public:
  HcpAnswerReader(KivHBN3Disassembler &parser, std::string_view text)
      : mParser(parser), mText(text) {
    for (DeviceSpecific &slot : mSlots) {
      slot.iFlag = 0;
      slot.iPortInfo = 0;
    }
  }

  // Reads the items a configuration answer carries too (`configurationItems`), or the others,
  // into `rec`. Fails before reading any of them when one is missing.
  void ReadItems(bool configurationItems, KivNetRecord &rec) {
    // Only the keys of the items to read are looked for: a configuration answer is never searched
    // for the discovery answer's.
    for (size_t i = 0; i < kHcpItemCount; ++i) {
      if (kHcpItems[i].inConfigurationAnswer == configurationItems) {
        mPositions[i] = mText.find(kHcpItems[i].key);
      }
    }
    for (size_t i = 0; i < kHcpItemCount; ++i) {
      if (kHcpItems[i].inConfigurationAnswer == configurationItems && mPositions[i] == npos) {
        FailHCP();
      }
    }
    for (size_t i = 0; i < kHcpItemCount; ++i) {
      if (kHcpItems[i].inConfigurationAnswer != configurationItems) {
        continue;
      }
      const HcpItem &item = kHcpItems[i];
      if (item.portField != nullptr) {
        ReadPortItem(item, mPositions[i]);
      } else {
        rec.*item.field = RecordValue(item, ValueStart(item, mPositions[i]));
      }
    }
  }

  // Appends the entries of the attached ports, in the order their items came; the slots give
  // their texts up.
  void AppendEntries(KivNetRecord &rec) {
    size_t attached = 0;
    for (const DeviceSpecific &slot : mSlots) {
      attached += slot.iFlag == 1 ? 1 : 0;
    }
    rec.vecDeviceSpecific.reserve(rec.vecDeviceSpecific.size() + attached);
    for (DeviceSpecific &slot : mSlots) {
      if (slot.iFlag == 1) {
        rec.vecDeviceSpecific.push_back(std::move(slot));
      }
    }
  }

private:
  static constexpr size_t npos = std::string_view::npos;

  static size_t ValueStart(const HcpItem &item, size_t keyPosition) {
    return keyPosition + std::strlen(item.key) + 1;
  }

  // The value at `start` by the item value rules (a start past the message fails).
  std::string Value(size_t start) {
    if (start > mText.size()) {
      FailHCP();
    }
    return mParser.getValue(static_cast<int>(start));
  }

  // The value of one of the record's own items, read by its rule.
  std::string RecordValue(const HcpItem &item, size_t start) {
    switch (item.rule) {
    case HcpRule::kAddress: {
      mParser.isAddress(true);
      std::string value = Value(start);
      mParser.isAddress(false);
      return value;
    }
    case HcpRule::kMacUaa:
      return ConvertMacUaa(Value(start));
    case HcpRule::kYesNo: {
      // Only the first byte counts, in either case; a quoted value is not a yes or no.
      const char flag = start < mText.size() ? mText[start] : '\0';
      if (flag == 'F' || flag == 'f') {
        return "FALSE";
      }
      return flag == 'T' || flag == 't' ? "TRUE" : "";
    }
    case HcpRule::kText:
    default:
      return Value(start);
    }
  }

  // The k-th CPDATTACHED, STRID and PRINTERVIDPID items describe the same port: devices list
  // them in one order, so they are paired by occurrence, not by port number. The occurrence after
  // one is searched from just past its space (CPDATTACHED) or its opening quote; each value is
  // located even for an unused slot, so the search always advances and a detached port does not
  // shift the pairing. A fifth occurrence is ignored.
  void ReadPortItem(const HcpItem &item, size_t first) {
    size_t at = first;
    for (int k = 0; k < kPortSlots && at != npos; ++k) {
      const size_t start = ValueStart(item, at);
      // Every per-port value starts with the port token and a space.
      const size_t space = mText.find(' ', start);
      if (space == npos) {
        FailHCP();
      }
      const size_t resume = item.rule == HcpRule::kAttached ? ReadAttached(mSlots[k], start, space)
                                                            : ReadQuoted(item, mSlots[k], space);
      at = mText.find(item.key, resume);
    }
  }

  // A port counts as attached when a "1" follows its token's space closely; only then is its
  // slot used. Returns where the next occurrence is searched from.
  size_t ReadAttached(DeviceSpecific &slot, size_t start, size_t space) {
    const std::string_view token = mText.substr(start, space - start);
    const size_t flagEnd = std::min(space + 1 + kAttachedFlagWindow, mText.size());
    if (mText.find('1', space + 1) < flagEnd) {
      slot.iPortInfo = PortNumber(token);
      slot.strCPDAttached.assign(token.data(), token.size()).append(" 1");
      slot.iFlag = 1;
    }
    return space + 1;
  }

  // The text between the double quotes after the port token's space, stored in a slot in use
  // (the port token itself is not needed: the slot comes from the item's order). A missing
  // opening quote fails either way, a missing closing quote only for a slot in use. Returns where
  // the next occurrence is searched from.
  size_t ReadQuoted(const HcpItem &item, DeviceSpecific &slot, size_t space) {
    const size_t open = mText.find('"', space + 1);
    if (open == npos) {
      FailHCP();
    }
    if (slot.iFlag != 1) {
      return open + 1;
    }
    // The closing quote is searched from the second byte of the text, so the text is never empty.
    const size_t close = mText.find('"', open + 2);
    if (close == npos) {
      FailHCP();
    }
    std::string_view quoted = mText.substr(open + 1, close - open - 1);
    // Some devices put a space after the opening quote of the product text.
    if (item.rule == HcpRule::kProductText && !quoted.empty() && quoted[0] == ' ') {
      quoted.remove_prefix(1);
    }
    (slot.*item.portField).assign(quoted.data(), quoted.size());
    return open + 1;
  }

  KivHBN3Disassembler &mParser;
  const std::string_view mText;          // the held message
  size_t mPositions[kHcpItemCount] = {}; // where each key was found, once looked for
  DeviceSpecific mSlots[kPortSlots];
};

} // namespace

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
  // DNS header around it may hold anything. The held message is read in place.
  const std::string_view text = HeldText();
  HcpAnswerReader reader(*this, text);
  const bool discovery = iType == kHCPDiscoveryResponse;
  if (!discovery) {
    if (!kiv::Fits(kHCPOffsetResult, 1, mLength)) {
      FailHCP();
    }
    rec.iResponse = mDataStream[kHCPOffsetResult];
    if (rec.iResponse != 0) {
      // The device refused the configuration; its answer carries no addresses to read.
      return 0;
    }
  }
  reader.ReadItems(true, rec); // the three addresses, which both answers carry
  if (!discovery) {
    return 0;
  }
  reader.ReadItems(false, rec); // the discovery answer's other items
  reader.AppendEntries(rec);
  return 0;
}
