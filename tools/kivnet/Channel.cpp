// kivnet's channel watch. A driver writer watching a device wants to see every frame as it comes
// and to stop the watch at any moment without leaving a listener behind, so the waits are kivnet's
// own (poll with the time left) and SIGINT and SIGTERM wake them, close the channel and join the
// listener.
#include "tools/kivnet/Channel.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "Interfaces/KivCallFrame.h"
#include "Interfaces/KivNetworkComm.h"

namespace kivnet {

namespace {

typedef std::chrono::steady_clock Clock;

// Once poll has seen data, a ReadManaged waits this long for each piece of a frame header. A
// header that stops half-way (its bytes are kept for the next read) thus sends the watch back to
// its own wait, which keeps --wait and sees signals. A tickle packet ends a read the same way
// (one in a row counts as the limit passing), so a device that sends only tickle packets does not
// hold the watch inside the library.
const KivTimeVal kHeaderPieceLimit = {0, 200000};
constexpr int kTicklesPerRead = 1;

// The listener's poll period: after CloseTCPSocket it ends within this time.
constexpr int kListenerPollMicroseconds = 250000;

// The listener ends by itself after more than 20 s without a frame and says so with the same
// report (null, 1) as a bad frame header; a report that late after the last frame is that end.
constexpr double kListenerIdleSeconds = 20.0;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Frames(int count) {
  return std::to_string(count) + (count == 1 ? " frame" : " frames");
}

// A pipe whose reading end a wait polls; writing a byte wakes it. Both ends non-blocking.
class WakePipe {
public:
  WakePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
      mRead = ends[0];
      mWrite = ends[1];
    } else {
      mError = errno;
    }
  }
  ~WakePipe() {
    if (mRead >= 0) {
      close(mRead);
      close(mWrite);
    }
  }
  WakePipe(const WakePipe &) = delete;
  WakePipe &operator=(const WakePipe &) = delete;
  bool ok() const { return mRead >= 0; }
  int error() const { return mError; }
  int readEnd() const { return mRead; }
  int writeEnd() const { return mWrite; }
  void Poke() const {
    const char byte = 1;
    const ssize_t written = write(mWrite, &byte, 1); // a full pipe is awake already
    (void)written;
  }
  void Drain() const {
    char bytes[64];
    while (read(mRead, bytes, sizeof bytes) > 0) {
    }
  }

private:
  int mRead = -1;
  int mWrite = -1;
  int mError = 0;
};

// The signal caught during a watch and the pipe its handler pokes. One watch at a time.
volatile sig_atomic_t gCaughtSignal = 0;
volatile sig_atomic_t gSignalPipe = -1;

extern "C" void OnStopSignal(int signal) {
  const int saved = errno;
  if (gCaughtSignal == 0) {
    gCaughtSignal = signal;
  }
  if (gSignalPipe >= 0) {
    const char byte = 1;
    const ssize_t written = write(gSignalPipe, &byte, 1);
    (void)written;
  }
  errno = saved;
}

// Catches SIGINT and SIGTERM while it lives (without SA_RESTART, so a blocking connect or read in
// this thread returns with EINTR) and puts the earlier dispositions back afterwards. A signal
// that was ignored when kivnet started (a background job of a script) stays ignored.
class StopSignals {
public:
  explicit StopSignals(const WakePipe &pipe) {
    gCaughtSignal = 0;
    gSignalPipe = pipe.writeEnd();
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < 2; ++i) {
      sigaction(kSignals[i], nullptr, &mEarlier[i]);
      if (mEarlier[i].sa_handler != SIG_IGN) {
        sigaction(kSignals[i], &action, nullptr);
      }
    }
  }
  ~StopSignals() {
    for (int i = 0; i < 2; ++i) {
      sigaction(kSignals[i], &mEarlier[i], nullptr);
    }
    gSignalPipe = -1;
  }
  StopSignals(const StopSignals &) = delete;
  StopSignals &operator=(const StopSignals &) = delete;
  int Caught() const { return gCaughtSignal; }

private:
  static constexpr int kSignals[2] = {SIGINT, SIGTERM};
  struct sigaction mEarlier[2];
};

// Blocks SIGINT and SIGTERM in the calling thread while it lives, so that a thread started
// meanwhile (a listener) never takes them: an interrupted read would end the listener with a
// failure report instead of the clean close the watch makes.
class SignalsBlocked {
public:
  SignalsBlocked() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, &mEarlier);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mEarlier, nullptr); }
  SignalsBlocked(const SignalsBlocked &) = delete;
  SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
  sigset_t mEarlier;
};

// An open channel. On every path it is closed, its listener joined, and then released: the
// library never releases a channel, and the listener must be over before the channel goes.
class OpenChannel {
public:
  explicit OpenChannel(HANDLE handle) : mHandle(handle) {}
  ~OpenChannel() {
    CloseAndJoin();
    delete static_cast<KivHBN3TCPSocket *>(VerifySocketHandle(mHandle, kSocketKindTCPChannel));
  }
  OpenChannel(const OpenChannel &) = delete;
  OpenChannel &operator=(const OpenChannel &) = delete;

  HANDLE handle() const { return mHandle; }
  void Close() {
    if (!mClosed) {
      int result = 0;
      CloseTCPSocket(mHandle, kSocketKindTCPChannel, result);
      mClosed = true;
    }
  }
  // Closes the channel and waits for its listener, which ends within one poll period and makes
  // no callback after the close. Afterwards nothing the listener was given is used any more.
  void CloseAndJoin() {
    Close();
    if (mListenerJoinable) {
      pthread_join(mListener, nullptr);
      mListenerJoinable = false;
    }
    if (mOwnListener.joinable()) {
      mOwnListener.join();
    }
  }
  void KeepListener(pthread_t thread) {
    mListener = thread;
    mListenerJoinable = true;
  }
  std::thread &OwnListener() { return mOwnListener; }

private:
  HANDLE mHandle;
  bool mClosed = false;
  pthread_t mListener{};
  bool mListenerJoinable = false;
  std::thread mOwnListener;
};

// What the listener's callback hands to the watch: frames (their length and first bytes; the
// block itself is freed in the callback) and the ends it reports.
struct ListenerEvent {
  enum Kind { kFrame, kClosed, kSocketFailure, kOtherFailure } kind = kFrame;
  int length = 0;
  std::string head;
};

// Releases a payload block the listener handed over (allocated with malloc).
struct FreeBlock {
  void operator()(const unsigned char *block) const {
    std::free(const_cast<unsigned char *>(block));
  }
};

class Mailbox {
public:
  Mailbox(const WakePipe &wake, int frameLimit) : mWake(wake), mFrameLimit(frameLimit) {}

  // The listener's callback. It owns every block it is given and frees it here. It answers false
  // (stop) once the device closed, after a failure, or at the frame count.
  static bool Callback(const unsigned char *data, int length, void *param) {
    Mailbox *self = static_cast<Mailbox *>(param);
    // Released on every path, a failed copy of the first bytes included.
    const std::unique_ptr<const unsigned char, FreeBlock> block(data);
    ListenerEvent event;
    if (data != nullptr && length > 0) {
      event.length = length;
      event.head.assign(reinterpret_cast<const char *>(data),
                        std::min<std::size_t>(static_cast<std::size_t>(length), kFrameHeadBytes));
    } else if (data != nullptr) {
      event.kind = ListenerEvent::kClosed;
    } else {
      event.kind = length == -4 ? ListenerEvent::kSocketFailure : ListenerEvent::kOtherFailure;
    }
    bool more = false;
    {
      std::lock_guard<std::mutex> lock(self->mMutex);
      if (self->mFinished) {
        return false; // the device closed or failed before: nothing more is wanted
      }
      more = event.kind == ListenerEvent::kFrame &&
             (self->mFrameLimit == 0 || ++self->mFrames < self->mFrameLimit);
      self->mFinished = !more;
      self->mEvents.push_back(std::move(event));
    }
    self->mWake.Poke();
    return more;
  }

  // Held while the listener is registered and its thread identifier taken: the callback waits
  // for it, so the listener cannot answer false and end before then (GetListenerThreadID gives
  // null once it has ended, and the thread could not be joined).
  std::unique_lock<std::mutex> Hold() { return std::unique_lock<std::mutex>(mMutex); }

  std::deque<ListenerEvent> Take() {
    std::lock_guard<std::mutex> lock(mMutex);
    std::deque<ListenerEvent> events;
    events.swap(mEvents);
    return events;
  }

private:
  const WakePipe &mWake;
  const int mFrameLimit;
  std::mutex mMutex;
  std::deque<ListenerEvent> mEvents;
  int mFrames = 0;
  bool mFinished = false;
};

// The state of one watch after the open: counts, times and the end.
class Watch {
public:
  Watch(const CommandLine &line, ChannelWatcher &watcher, ChannelEnd &end, const StopSignals &stop,
        const WakePipe &signalPipe)
      : mLine(line), mWatcher(watcher), mEnd(end), mStop(stop), mSignalPipe(signalPipe),
        mOpened(Clock::now()), mLastFrame(mOpened) {}

  // Hands a frame on; true when the count is reached.
  bool Frame(int length, std::string head) {
    ChannelFrame frame;
    frame.number = ++mEnd.frames;
    frame.length = length;
    frame.head = std::move(head);
    frame.seconds = Since(mOpened);
    mEnd.bytes += length;
    mLastFrame = Clock::now();
    mWatcher.Frame(frame);
    return mLine.frames > 0 && mEnd.frames >= mLine.frames;
  }

  // Waits for `descriptor` (may be -1) or a signal with the time --wait leaves. Returns 1 when
  // `descriptor` is ready, 0 when the wait should be looked at again, -1 when the watch ended
  // (interrupted or quiet; `mEnd` says which), -2 on a failure of poll (`failure` set).
  int Wait(int descriptor, Failure &failure) {
    if (Ended()) {
      return -1;
    }
    int milliseconds = -1;
    if (mLine.waitTenths > 0) {
      const auto deadline = mLastFrame + std::chrono::milliseconds(mLine.waitTenths * 100);
      const auto left =
          std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
      if (left <= 0) {
        End(ChannelEndReason::kQuiet);
        mEnd.quietTenths = mLine.waitTenths;
        return -1;
      }
      milliseconds = static_cast<int>((left + 999) / 1000);
    }
    pollfd watched[2] = {{mSignalPipe.readEnd(), POLLIN, 0}, {descriptor, POLLIN, 0}};
    const int ready = poll(watched, descriptor >= 0 ? 2 : 1, milliseconds);
    if (ready < 0 && errno != EINTR) {
      failure = Fail(FailureKind::kCall, "cannot wait for the channel", "", 0, errno);
      return -2;
    }
    if (Ended()) {
      return -1;
    }
    return ready > 0 && descriptor >= 0 && watched[1].revents != 0 ? 1 : 0;
  }

  // True when a signal came (and records it as the end).
  bool Ended() {
    if (mStop.Caught() != 0) {
      mEnd.signal = mStop.Caught();
      End(ChannelEndReason::kInterrupted);
      return true;
    }
    return false;
  }

  void End(ChannelEndReason reason) {
    mEnd.reason = reason;
    mEnd.seconds = Since(mOpened);
  }

  // The end as a failure when it came before the frames asked for.
  Failure Finish() {
    if (mLine.frames > 0 && mEnd.frames < mLine.frames &&
        mEnd.reason != ChannelEndReason::kInterrupted && mEnd.reason != ChannelEndReason::kCount) {
      const std::string how = mEnd.reason == ChannelEndReason::kClosed
                                  ? "the device closed the channel"
                              : mEnd.reason == ChannelEndReason::kQuiet
                                  ? "no frame came for " + WaitText(mLine.waitTenths) + " s"
                                  : "the listener ended after more than 20 s without a frame";
      return Fail(FailureKind::kEndedEarly,
                  how + " after " + std::to_string(mEnd.frames) + " of " + Frames(mLine.frames));
    }
    return Failure();
  }

  double SinceLastFrame() const { return Since(mLastFrame); }
  int FramesSoFar() const { return mEnd.frames; }

private:
  const CommandLine &mLine;
  ChannelWatcher &mWatcher;
  ChannelEnd &mEnd;
  const StopSignals &mStop;
  const WakePipe &mSignalPipe;
  const Clock::time_point mOpened;
  Clock::time_point mLastFrame;
};

std::string AfterFrames(int frames) {
  return frames == 0 ? " before any frame" : " after " + Frames(frames);
}

// Frames read with ReadManaged into a buffer as large as the library's frame limit, so that no
// frame it accepts is too large for kivnet. The block is not written before use, so the system
// gives it memory only as far as frames reach.
Failure ReadFrames(OpenChannel &channel, Watch &watch) {
  const int descriptor = GetSocketID(channel.handle(), kSocketKindTCPChannel);
  if (descriptor < 0 ||
      (static_cast<UInt32>(descriptor) & 0xFF000000u) == kiv::frame::kExceptionCodeBase) {
    return Fail(FailureKind::kCall, "cannot reach the channel's descriptor", "GetSocketID",
                static_cast<UInt32>(descriptor));
  }
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[kHBN3MaxFramePayloadLength]);
  for (;;) {
    Failure failure;
    const int ready = watch.Wait(descriptor, failure);
    if (ready == -2) {
      return failure;
    }
    if (ready == -1) {
      return watch.Finish();
    }
    if (ready == 0) {
      continue;
    }
    int count = 0;
    errno = 0;
    const UInt32 code =
        ReadManaged(channel.handle(), kSocketKindTCPChannel, buffer.get(),
                    kHBN3MaxFramePayloadLength, kHeaderPieceLimit, kTicklesPerRead, count);
    const int error = errno;
    if (watch.Ended()) {
      return Failure(); // a read a signal interrupted fails; the signal is what counts
    }
    if (code != 0) {
      return Fail(FailureKind::kCall,
                  "reading the channel failed" + AfterFrames(watch.FramesSoFar()), "ReadManaged",
                  code, error);
    }
    if (count > 0) {
      if (watch.Frame(count, std::string(reinterpret_cast<const char *>(buffer.get()),
                                         std::min<std::size_t>(static_cast<std::size_t>(count),
                                                               kFrameHeadBytes)))) {
        watch.End(ChannelEndReason::kCount);
        return Failure();
      }
    } else if (count == 0) {
      watch.End(ChannelEndReason::kClosed);
      return watch.Finish();
    } else if (count == -2) {
      return Fail(FailureKind::kBadFrame,
                  "the device sent a frame header without \"HBN3\" or with a length outside 0 to "
                  "64 MiB" +
                      AfterFrames(watch.FramesSoFar()) +
                      " (ReadManaged count -2); the channel cannot be read any further");
    }
    // -5: a header piece or a tickle packet and then nothing within the piece limit.
  }
}

// Frames handed over by the listener: the library's joinable thread, or for a media channel a
// thread of kivnet's own in which the listener runs as in the registering thread.
Failure ListenForFrames(const CommandLine &line, OpenChannel &channel, Watch &watch) {
  WakePipe wake;
  if (!wake.ok()) {
    return Fail(FailureKind::kCall, "cannot make a pipe", "", 0, wake.error());
  }
  Mailbox mailbox(wake, line.frames);
  UInt32 code = 0;
  {
    const SignalsBlocked blocked;
    const std::unique_lock<std::mutex> held = mailbox.Hold();
    if (line.endPoint == kMediaInterface) {
      channel.OwnListener() = std::thread([&channel, &mailbox] {
        RegisterReadCallback(channel.handle(), &Mailbox::Callback, &mailbox, 0,
                             kListenerPollMicroseconds, false, false);
      });
    } else {
      code = RegisterReadCallback(channel.handle(), &Mailbox::Callback, &mailbox, 0,
                                  kListenerPollMicroseconds, true, false);
      if (code == 0) {
        if (pthread_t *thread = GetListenerThreadID(channel.handle())) {
          channel.KeepListener(*thread);
        }
      }
    }
  }
  // The mailbox and the pipe outlive the listener: it is joined before this returns.
  struct JoinFirst {
    OpenChannel &channel;
    ~JoinFirst() { channel.CloseAndJoin(); }
  } joinFirst{channel};
  if (code != 0) {
    return Fail(FailureKind::kCall, "cannot start the listener", "RegisterReadCallback", code);
  }
  for (;;) {
    for (ListenerEvent &event : mailbox.Take()) {
      switch (event.kind) {
      case ListenerEvent::kFrame:
        if (watch.Frame(event.length, std::move(event.head))) {
          watch.End(ChannelEndReason::kCount);
          return Failure();
        }
        break;
      case ListenerEvent::kClosed:
        watch.End(ChannelEndReason::kClosed);
        return watch.Finish();
      case ListenerEvent::kSocketFailure:
        return Fail(FailureKind::kCall, "the listener's read failed" +
                                            AfterFrames(watch.FramesSoFar()) +
                                            " (callback (null, -4))");
      case ListenerEvent::kOtherFailure:
        if (watch.SinceLastFrame() > kListenerIdleSeconds) {
          watch.End(ChannelEndReason::kListenerIdle);
          return watch.Finish();
        }
        return Fail(FailureKind::kBadFrame,
                    "the listener reported a bad frame header or a failed read" +
                        AfterFrames(watch.FramesSoFar()) +
                        " (callback (null, 1)); the channel cannot be read any further");
      }
    }
    Failure failure;
    const int ready = watch.Wait(wake.readEnd(), failure);
    if (ready == -2) {
      return failure;
    }
    if (ready == -1) {
      return watch.Finish();
    }
    wake.Drain();
  }
}

} // namespace

Failure WatchChannel(const CommandLine &line, ChannelWatcher &watcher, ChannelEnd &end) {
  end = ChannelEnd();
  const Clock::time_point start = Clock::now();
  WakePipe signalPipe;
  if (!signalPipe.ok()) {
    return Fail(FailureKind::kCall, "cannot make a pipe", "", 0, signalPipe.error());
  }
  const StopSignals stop(signalPipe);
  const std::string where = line.target + ":" + std::to_string(line.port);
  const std::string interfaceName = EndPointName(line.endPoint);

  std::string address = line.target;
  int result = 0; // stays 0 when no connection was made
  errno = 0;
  HANDLE handle =
      OpenTCPSocket(address, line.port, static_cast<KivEndPointInterface>(line.endPoint), result);
  const int error = errno;
  if (handle == nullptr) {
    if (stop.Caught() != 0) {
      end.reason = ChannelEndReason::kInterrupted;
      end.signal = stop.Caught();
      end.seconds = Since(start);
      return Failure();
    }
    if (result == -1) {
      return Fail(FailureKind::kOpenRefused,
                  "the device at " + where + " refused the open request of the " + interfaceName +
                      " interface (iResult -1: no answer \"HBN3\" of length 0)",
                  "OpenTCPSocket");
    }
    return Fail(FailureKind::kCall, "could not connect to " + where, "OpenTCPSocket", 0, error);
  }
  OpenChannel channel(handle);
  watcher.Opened(line.target, line.port, line.endPoint);
  Watch watch(line, watcher, end, stop, signalPipe);

  for (const std::string &bytes : line.sends) {
    int sent = 0;
    errno = 0;
    std::string copy = bytes;
    const UInt32 code = WriteManaged(
        handle, kSocketKindTCPChannel, reinterpret_cast<unsigned char *>(&copy[0]),
        static_cast<unsigned int>(copy.size()), KivTimeVal{kSendLimitSeconds, 0}, sent);
    const int writeError = errno;
    if (watch.Ended()) {
      return Failure();
    }
    const std::string what = "cannot write " + std::to_string(bytes.size()) + " bytes to " + where;
    if (code != 0) {
      return Fail(FailureKind::kCall, what, "WriteManaged", code, writeError);
    }
    if (sent == -5) {
      return Fail(FailureKind::kCall, what + ": the device took no data for " +
                                          std::to_string(kSendLimitSeconds) + " s");
    }
    if (sent != static_cast<int>(bytes.size())) {
      return Fail(FailureKind::kCall, what + ": the device took none of them (it has closed the "
                                             "channel)");
    }
    watcher.Sent(bytes);
  }
  return line.listen ? ListenForFrames(line, channel, watch) : ReadFrames(channel, watch);
}

} // namespace kivnet
