// kivnet's channel watch: an HBN3 channel opened, written and read through the exported channel
// functions, the way a driver drives one.
#ifndef KIV_TOOLS_KIVNET_CHANNEL_H
#define KIV_TOOLS_KIVNET_CHANNEL_H

#include <string>

#include "tools/kivnet/Answers.h"
#include "tools/kivnet/CommandLine.h"
#include "tools/kivnet/Exchange.h"

namespace kivnet {

// Each --send waits at most this long, per wait, for the device to take its bytes.
constexpr int kSendLimitSeconds = 5;

// Hears of the watch's steps as they happen, so output can follow the device.
class ChannelWatcher {
public:
  virtual ~ChannelWatcher() = default;
  // The open handshake was accepted.
  virtual void Opened(const std::string &address, int port, int endPoint) = 0;
  // One --send was taken whole by the device.
  virtual void Sent(const std::string &bytes) = 0;
  virtual void Frame(const ChannelFrame &frame) = 0;
};

// Opens a channel to line.target, line.port and line.endPoint (OpenTCPSocket), writes each of
// line.sends (WriteManaged), then reads frames, with ReadManaged or, with line.listen, through
// the library's listener thread (a media channel's listener runs in a thread of kivnet's own,
// the library serving media only in the registering thread), and hands each to `watcher`. Ends
// when the device closes, after line.frames frames, after line.waitTenths without a frame (0:
// no limit), when the listener ends by itself, or on SIGINT or SIGTERM, which are caught for the
// watch's duration; `end` says which. In every case the channel is closed and a listener joined
// before the function returns. Fails as kOpenRefused, kCall (no connection, a failed call, a
// device that takes no data), kBadFrame, or kEndedEarly when the channel ended before
// line.frames frames (`end` is filled then as well).
Failure WatchChannel(const CommandLine &line, ChannelWatcher &watcher, ChannelEnd &end);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_CHANNEL_H
