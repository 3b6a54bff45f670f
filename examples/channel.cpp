// channel: opens an HBN3 channel to a device's scan end point, has the library's listener thread
// hand over the frames the device sends, prints them, then closes the channel and joins the
// listener.
//   usage: channel ADDRESS PORT [FRAMES [SECONDS]]
// PORT is the device's channel port (TCP); the program stops after FRAMES frames (3), when the
// device closes the channel, or after SECONDS seconds (10).
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "Interfaces/KivNetworkComm.h"

namespace {

// What the callback shares with the main thread. The callback runs on the listener thread.
struct Frames {
  std::mutex mutex;
  std::condition_variable changed;
  int wanted = 0;
  int received = 0;
  bool ended = false; // the device closed the channel, or the listener reported a failure
};

// The listener's callback: `data` is a block of its own for each call, allocated with malloc,
// which the callback releases with free() (null for a failure report). Answering false stops the
// listener.
bool OnFrame(const unsigned char *data, int length, void *param) {
  Frames *frames = static_cast<Frames *>(param);
  std::lock_guard<std::mutex> lock(frames->mutex);
  bool more = true;
  if (data != nullptr && length > 0) {
    std::printf("frame %d: %d bytes:", ++frames->received, length);
    for (int i = 0; i < length && i < 16; ++i) {
      std::printf(" %02x", data[i]);
    }
    std::printf(length > 16 ? " ...\n" : "\n");
    more = frames->received < frames->wanted;
  } else {
    // Length 0: the device closed the channel (asked again until the callback says stop);
    // null with -4 or 1: a failed read, a bad frame header, or 20 s without a frame.
    if (data != nullptr) {
      std::printf("the device closed the channel\n");
    } else {
      std::printf("the listener reported %d\n", length);
    }
    frames->ended = true;
    more = false;
  }
  std::free(const_cast<unsigned char *>(data));
  frames->changed.notify_all();
  return more;
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: channel ADDRESS PORT [FRAMES [SECONDS]]\n");
    return 2;
  }
  std::string address = argv[1];
  const int port = std::atoi(argv[2]);
  Frames frames;
  frames.wanted = argc > 3 ? std::atoi(argv[3]) : 3;
  const int seconds = argc > 4 ? std::atoi(argv[4]) : 10;

  // Connects, sends the scan interface's nine-byte open request and waits up to 60 s for the
  // device's answer. iResult is 9 on success and -1 when the device refused; null with iResult
  // unchanged means no connection could be made.
  int result = 0;
  HANDLE channel = OpenTCPSocket(address, port, kScanInterface, result);
  if (channel == nullptr) {
    std::fprintf(stderr, result == -1 ? "the device refused the open request\n"
                                      : "could not connect to the device\n");
    return 1;
  }

  // A joinable listener thread that waits at most 1 s per poll, so that CloseTCPSocket ends it
  // within a second. Its identifier must be taken while it runs (GetListenerThreadID gives null
  // once the listener has ended): holding the lock the callback takes keeps the listener from
  // answering false, and so from ending, before that.
  UInt32 registered = 0;
  pthread_t *listener = nullptr;
  pthread_t thread{};
  {
    std::lock_guard<std::mutex> lock(frames.mutex);
    registered = RegisterReadCallback(channel, &OnFrame, &frames, 1, 0, true, false);
    listener = GetListenerThreadID(channel);
    if (listener != nullptr) {
      thread = *listener;
    }
  }
  if (registered != 0) {
    std::fprintf(stderr, "RegisterReadCallback returned 0x%08X\n", registered);
  }

  {
    std::unique_lock<std::mutex> lock(frames.mutex);
    frames.changed.wait_for(lock, std::chrono::seconds(seconds),
                            [&] { return frames.ended || frames.received >= frames.wanted; });
  }

  // Closing tells the listener to stop; it makes no callback afterwards. Join it before `frames`
  // goes out of scope. The channel object itself is never released by the library.
  CloseTCPSocket(channel, 1, result);
  if (listener != nullptr) {
    pthread_join(thread, nullptr);
  }
  std::printf("%d frame(s)\n", frames.received);
  return frames.received >= frames.wanted ? 0 : 1;
}
