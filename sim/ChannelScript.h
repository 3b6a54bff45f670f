// What a simulated device does on an HBN3 TCP channel: its answer to the open request and the
// steps it plays afterwards, with builders for the common scripts; bytes only, no sockets.
#ifndef KIV_SIM_CHANNELSCRIPT_H
#define KIV_SIM_CHANNELSCRIPT_H

#include <cstdint>
#include <string>
#include <vector>

namespace kivsim {

// One step of a channel script.
struct ChannelStep {
  enum Kind {
    kFrame,  // a frame: "HBN3", 00, the big-endian length of `bytes`, then `bytes`
    kTickle, // a bare frame header with length 0 (a keep-alive the host skips)
    kRaw,    // `bytes` exactly as given: a bad tag, a wrong length, half a frame, garbage
    kPause,  // nothing sent for `pauseMs` milliseconds (0 to 600000)
    kClose,  // the device closes the connection; later steps are not played
    kSilence // nothing more is sent; the connection stays open until the host closes it or the
             // simulator stops (also what follows the last step of a script without kClose)
  };
  Kind kind = kSilence;
  std::vector<unsigned char> bytes;
  int pauseMs = 0;
  // The step's bytes leave one per send, a few milliseconds apart (TCP_NODELAY is set), so the
  // host sees the stream split at every byte boundary.
  bool byteByByte = false;
};

// A device's conduct on one channel connection.
struct ChannelScript {
  // The answer to a valid open request. Whatever this says, a request that is not one of the four
  // open requests ("HBN3", 00, then 00 00 00 01 print, 02 scan, 04 HID or 08 media; byte 4 is not
  // examined) is refused: the device closes the connection without an answer.
  enum Handshake {
    kAccept,         // "HBN3", answerDummyByte, length 0
    kNonZeroLength,  // 48 42 4E 33 00 00 00 00 05
    kWrongTag,       // "HBN1", 00, length 0
    kSilent,         // no answer; the connection stays open as after kSilence
    kCloseAfterFour, // the first four bytes of the accepting answer, then the device closes
  };
  Handshake handshake = kAccept;
  unsigned char answerDummyByte = 0; // byte 4 of the accepting answer; the host ignores it
  // Played in order after an accepting answer. After a non-zero-length or wrong-tag answer the
  // device plays nothing and stays silent until the host closes.
  std::vector<ChannelStep> steps;
};

// The host's side of one channel connection, as the device saw it.
struct ChannelConnectionLog {
  std::vector<unsigned char> openRequest; // the first nine bytes (fewer if the host closed first)
  std::vector<unsigned char> written;     // every later byte the host sent, in order (at most
                                          // the first 16 MiB are kept)
  std::uint64_t writtenCount = 0;         // every later byte, counted
  bool hostClosed = false;   // the host closed (or reset) the connection before the device did
  bool deviceClosed = false; // the device closed it: refused request, kCloseAfterFour, kClose
  bool finished = false;     // the connection is over (either side closed, or Stop)
};

// The channel connections of one device since it was added.
struct ChannelLog {
  unsigned long accepted = 0;                    // connections accepted
  std::vector<ChannelConnectionLog> connections; // in the order they were accepted
};

// Builders of steps.
ChannelStep FrameStep(const std::vector<unsigned char> &payload, bool byteByByte = false);
ChannelStep TickleStep(bool byteByByte = false);
ChannelStep RawStep(const std::vector<unsigned char> &bytes, bool byteByByte = false);
ChannelStep PauseStep(int milliseconds);
ChannelStep CloseStep();
ChannelStep SilenceStep();

// The payload of frame `frame` (0, 1, ...) of a pattern script: `size` bytes, byte i being
// (frame * 31 + i) & 0xFF.
std::vector<unsigned char> PatternPayload(int frame, int size);

// An accepting script of `frames` frames of `size` bytes (1 or more) with pattern payloads;
// `tickles` tickle packets before each frame; `intervalMs` of pause before each frame after the
// first; every step byte by byte when `byteByByte`. It ends in silence.
ChannelScript PatternScript(int frames, int size, int tickles = 0, bool byteByByte = false,
                            int intervalMs = 0);

// How a script goes wrong after its frames.
enum class ChannelFault {
  kNone,
  kBadTag,         // a frame tagged "HBN1": 48 42 4E 31 00 00 00 00 03 41 42 43
  kNegativeLength, // a header with length -1: 48 42 4E 33 00 FF FF FF FF
  kHugeLength,     // a header with length 0x7FFFFFFF and no payload
  kCloseMidFrame,  // a header announcing 100 bytes, 40 of them (pattern payload of the next frame
                   // number), then the device closes
  kSilence         // nothing more (as a script without kClose)
};

// Appends `fault`'s steps to `script`, byte by byte when `byteByByte`. Every fault but
// kCloseMidFrame leaves the connection open in silence afterwards.
void AppendChannelFault(ChannelScript &script, ChannelFault fault, bool byteByByte = false);

// The fault named by `name` ("none", "bad-tag", "negative-length", "huge-length",
// "close-mid-frame", "silence"); false for another name.
bool ParseChannelFault(const std::string &name, ChannelFault &fault);

// The handshake named by `name` ("accept", "nonzero-length", "wrong-tag", "silent",
// "close-after-four"); false for another name.
bool ParseChannelHandshake(const std::string &name, ChannelScript::Handshake &handshake);

// The nine bytes a device sends for `script`'s handshake (four for kCloseAfterFour, none for
// kSilent).
std::vector<unsigned char> HandshakeAnswer(const ChannelScript &script);

// True when the nine bytes at `request` are one of the four open requests.
bool IsOpenRequest(const unsigned char *request);

// The bytes a step sends (none for kPause, kClose, kSilence).
std::vector<unsigned char> StepBytes(const ChannelStep &step);

} // namespace kivsim

#endif // KIV_SIM_CHANNELSCRIPT_H
