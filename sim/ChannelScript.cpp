// Channel scripts of the simulated devices, written from the channel's framing with own byte code.
//
// Frame header, nine bytes: 0 "HBN3", 4 one byte the reader does not examine, 5 the payload
// length as a signed big-endian 32-bit number. Open requests have the same shape with the
// interface code in the place of the length: 01 print, 02 scan, 04 HID, 08 media.
#include "sim/ChannelScript.h"

#include <algorithm>
#include <cstring>

namespace kivsim {

namespace {

typedef std::vector<unsigned char> Bytes;

Bytes Header(const char *tag, unsigned char dummy, std::uint32_t length) {
  Bytes out(tag, tag + 4);
  out.push_back(dummy);
  out.push_back(static_cast<unsigned char>(length >> 24));
  out.push_back(static_cast<unsigned char>((length >> 16) & 0xFF));
  out.push_back(static_cast<unsigned char>((length >> 8) & 0xFF));
  out.push_back(static_cast<unsigned char>(length & 0xFF));
  return out;
}

} // namespace

ChannelStep FrameStep(const std::vector<unsigned char> &payload, bool byteByByte) {
  ChannelStep step;
  step.kind = ChannelStep::kFrame;
  step.bytes = payload;
  step.byteByByte = byteByByte;
  return step;
}

ChannelStep TickleStep(bool byteByByte) {
  ChannelStep step;
  step.kind = ChannelStep::kTickle;
  step.byteByByte = byteByByte;
  return step;
}

ChannelStep RawStep(const std::vector<unsigned char> &bytes, bool byteByByte) {
  ChannelStep step;
  step.kind = ChannelStep::kRaw;
  step.bytes = bytes;
  step.byteByByte = byteByByte;
  return step;
}

ChannelStep PauseStep(int milliseconds) {
  ChannelStep step;
  step.kind = ChannelStep::kPause;
  step.pauseMs = milliseconds;
  return step;
}

ChannelStep CloseStep() {
  ChannelStep step;
  step.kind = ChannelStep::kClose;
  return step;
}

ChannelStep SilenceStep() { return ChannelStep(); }

std::vector<unsigned char> PatternPayload(int frame, int size) {
  Bytes out(static_cast<std::size_t>(std::max(size, 0)));
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] = static_cast<unsigned char>((static_cast<unsigned>(frame) * 31u + i) & 0xFF);
  }
  return out;
}

ChannelScript PatternScript(int frames, int size, int tickles, bool byteByByte, int intervalMs) {
  ChannelScript script;
  for (int k = 0; k < frames; ++k) {
    if (k > 0 && intervalMs > 0) {
      script.steps.push_back(PauseStep(intervalMs));
    }
    for (int t = 0; t < tickles; ++t) {
      script.steps.push_back(TickleStep(byteByByte));
    }
    script.steps.push_back(FrameStep(PatternPayload(k, size), byteByByte));
  }
  return script;
}

void AppendChannelFault(ChannelScript &script, ChannelFault fault, bool byteByByte) {
  std::vector<ChannelStep> &steps = script.steps;
  switch (fault) {
  case ChannelFault::kNone:
    break;
  case ChannelFault::kBadTag: {
    Bytes bytes = Header("HBN1", 0, 3);
    bytes.insert(bytes.end(), {'A', 'B', 'C'});
    steps.push_back(RawStep(bytes, byteByByte));
    break;
  }
  case ChannelFault::kNegativeLength:
    steps.push_back(RawStep(Header("HBN3", 0, 0xFFFFFFFFu), byteByByte));
    break;
  case ChannelFault::kHugeLength:
    steps.push_back(RawStep(Header("HBN3", 0, 0x7FFFFFFFu), byteByByte));
    break;
  case ChannelFault::kCloseMidFrame: {
    const long frames = std::count_if(steps.begin(), steps.end(), [](const ChannelStep &step) {
      return step.kind == ChannelStep::kFrame;
    });
    Bytes bytes = Header("HBN3", 0, 100);
    const Bytes part = PatternPayload(static_cast<int>(frames), 40);
    bytes.insert(bytes.end(), part.begin(), part.end());
    steps.push_back(RawStep(bytes, byteByByte));
    steps.push_back(CloseStep());
    break;
  }
  case ChannelFault::kSilence:
    steps.push_back(SilenceStep());
    break;
  }
}

bool ParseChannelFault(const std::string &name, ChannelFault &fault) {
  static const struct {
    const char *name;
    ChannelFault fault;
  } kNames[] = {{"none", ChannelFault::kNone},
                {"bad-tag", ChannelFault::kBadTag},
                {"negative-length", ChannelFault::kNegativeLength},
                {"huge-length", ChannelFault::kHugeLength},
                {"close-mid-frame", ChannelFault::kCloseMidFrame},
                {"silence", ChannelFault::kSilence}};
  for (const auto &entry : kNames) {
    if (name == entry.name) {
      fault = entry.fault;
      return true;
    }
  }
  return false;
}

bool ParseChannelHandshake(const std::string &name, ChannelScript::Handshake &handshake) {
  static const struct {
    const char *name;
    ChannelScript::Handshake handshake;
  } kNames[] = {{"accept", ChannelScript::kAccept},
                {"nonzero-length", ChannelScript::kNonZeroLength},
                {"wrong-tag", ChannelScript::kWrongTag},
                {"silent", ChannelScript::kSilent},
                {"close-after-four", ChannelScript::kCloseAfterFour}};
  for (const auto &entry : kNames) {
    if (name == entry.name) {
      handshake = entry.handshake;
      return true;
    }
  }
  return false;
}

std::vector<unsigned char> HandshakeAnswer(const ChannelScript &script) {
  switch (script.handshake) {
  case ChannelScript::kAccept:
    return Header("HBN3", script.answerDummyByte, 0);
  case ChannelScript::kNonZeroLength:
    return Header("HBN3", 0, 5);
  case ChannelScript::kWrongTag:
    return Header("HBN1", 0, 0);
  case ChannelScript::kSilent:
    break;
  case ChannelScript::kCloseAfterFour: {
    Bytes answer = Header("HBN3", script.answerDummyByte, 0);
    answer.resize(4);
    return answer;
  }
  }
  return Bytes();
}

bool IsOpenRequest(const unsigned char *request) {
  static const unsigned char kZeros[3] = {0, 0, 0};
  if (std::memcmp(request, "HBN3", 4) != 0 || std::memcmp(request + 5, kZeros, 3) != 0) {
    return false;
  }
  const unsigned char code = request[8];
  return code == 0x01 || code == 0x02 || code == 0x04 || code == 0x08;
}

std::vector<unsigned char> StepBytes(const ChannelStep &step) {
  switch (step.kind) {
  case ChannelStep::kFrame: {
    Bytes out = Header("HBN3", 0, static_cast<std::uint32_t>(step.bytes.size()));
    out.insert(out.end(), step.bytes.begin(), step.bytes.end());
    return out;
  }
  case ChannelStep::kTickle:
    return Header("HBN3", 0, 0);
  case ChannelStep::kRaw:
    return step.bytes;
  default:
    return Bytes();
  }
}

} // namespace kivsim
