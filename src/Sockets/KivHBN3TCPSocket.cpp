// The HBN3 channel: open handshake, writes, the frame reader behind every read, and the listener.
#include "Sockets/KivHBN3TCPSocket.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>

#include "Common/Exceptions/KivExceptions.h"
#include "CommonFiles/KivHandleRegistry.h"
#include "CommonFiles/KivWireBytes.h"

// ---- Frame header ------------------------------------------------------------------------------

KivHBN3TCPHeader KivHBN3TCPHeader::FromBytes(const unsigned char *bytes) {
  KivHBN3TCPHeader header;
  header.mProtocol = kiv::ReadBE32(bytes);
  header.mDummy = bytes[4];
  header.mPayloadLength = static_cast<int>(kiv::ReadBE32(bytes + 5));
  return header;
}

void KivHBN3TCPHeader::ToBytes(unsigned char *bytes) const {
  kiv::WriteBE32(bytes, mProtocol);
  bytes[4] = mDummy;
  kiv::WriteBE32(bytes + 5, static_cast<UInt32>(mPayloadLength));
}

// ---- Where payloads go -------------------------------------------------------------------------

namespace kiv {

// The frame reader asks its destination for room once it knows a payload's length; a null answer
// (no memory) makes it consume the payload without keeping it. One object per frame.
class KivFrameDestination {
public:
  virtual unsigned char *Room(int length) = 0;

protected:
  ~KivFrameDestination() = default;
};

} // namespace kiv

namespace {

// A block of exactly the payload's length, for a read into a container.
class BlockDestination : public kiv::KivFrameDestination {
public:
  unsigned char *Room(int length) override {
    mBlock.reset(new (std::nothrow) unsigned char[static_cast<size_t>(length)]);
    return mBlock.get();
  }
  const unsigned char *Block() const { return mBlock.get(); }

private:
  std::unique_ptr<unsigned char[]> mBlock;
};

// A block from the C allocator, for the listener: handed to the callback, which frees it.
class CallbackBlockDestination : public kiv::KivFrameDestination {
public:
  ~CallbackBlockDestination() { std::free(mBlock); }
  unsigned char *Room(int length) override {
    std::free(mBlock);
    mBlock = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(length)));
    return mBlock;
  }
  // Gives the block away (to the callback).
  unsigned char *Release() {
    unsigned char *block = mBlock;
    mBlock = nullptr;
    return block;
  }

private:
  unsigned char *mBlock = nullptr;
};

// Failures of the listener's reads after which it stops, whatever the callback answers: the
// descriptor or the connection is gone, or the read was interrupted.
bool StopsTheListener(int error) {
  return error == EBADF || error == ENOTCONN || error == ENOTSOCK || error == EINTR;
}

// mListenerSocket when no thread launch is pending.
constexpr int kNoLaunch = -1;
// mListenerSocket when a launch could not duplicate the descriptor.
constexpr int kLaunchWithoutDescriptor = -2;

constexpr long long kMicrosPerSecond = 1000000;

} // namespace

// ---- The reader slot ---------------------------------------------------------------------------

// Held while a frame is read: the partly read frame header is the channel's, so only one reader
// may run at a time. A second one is refused rather than left to race over it.
class KivHBN3TCPSocket::ReaderSlot {
public:
  explicit ReaderSlot(KivHBN3TCPSocket &channel) : mChannel(channel) {
    if (mChannel.mReading.exchange(true)) {
      errno = EBUSY;
      throw KivExceptions();
    }
  }
  ~ReaderSlot() { mChannel.mReading.store(false); }
  ReaderSlot(const ReaderSlot &) = delete;
  ReaderSlot &operator=(const ReaderSlot &) = delete;

private:
  KivHBN3TCPSocket &mChannel;
};

struct KivHBN3TCPSocket::FrameOutcome {
  enum Kind {
    PAYLOAD,    // a payload of `length` bytes is in the destination's room
    DROPPED,    // a payload of `length` bytes was consumed; the destination had no room
    TICKLE,     // a tickle packet was consumed
    CLOSED,     // end of stream; `inPayload` when it came inside a payload
    BAD_HEADER, // no "HBN3", or a negative or too large length
    TIMED_OUT,  // a wait for header bytes ran out (those read so far are kept)
    STOPPED,    // the listener was told to stop inside a payload
  };
  Kind kind;
  int length;
  bool inPayload;
};

// ---- Construction, open, write -----------------------------------------------------------------

KivHBN3TCPSocket::KivHBN3TCPSocket(std::string ip, int usbEndPoint,
                                   KivEndPointInterface endPointInterface)
    : KivTCPClientSocket(ip, usbEndPoint), mCallback(nullptr), mCallbackParameter(nullptr),
      mEndPointInterface(endPointInterface), mTimeout(kHBN3DefaultPollSeconds * kMicrosPerSecond),
      mIsConnected(true), mRunInSeparateThread(false), mIsDetached(false), mStillListen(true),
      mListenerCurrentlyRunning(false), mListenerThread(),
      mStorageBuffer(), mOpenAnswerLimit{kHBN3OpenAnswerSeconds, 0}, mReading(false),
      mListenerThreaded(false), mListenerSocket(kNoLaunch), mHeaderBytes(), mHeaderHave(0) {}

// The container does not release its storage when destroyed; the channel does.
KivHBN3TCPSocket::~KivHBN3TCPSocket() {
  kiv::ForgetHandle(this, kKivTCPClientSocketClassID);
  mStorageBuffer.ResetBuffer();
}

int KivHBN3TCPSocket::Open() {
  mStorageBuffer.ResetBuffer();
  mHeaderHave = 0; // a new connection starts a new stream
  try {
    if (mSocket == -1) {
      GenerateSocket();
    }
    SetNoDelay();
    Connect();
    SendAll(KivOpenRequestFor(mEndPointInterface), kHBN3InterfaceTagLength, 0);
    unsigned char answer[KivHBN3TCPHeader::kLength];
    if (RecvAll(answer, KivHBN3TCPHeader::kLength, mOpenAnswerLimit, 0) !=
        KivHBN3TCPHeader::kLength) {
      return kHBN3OpenRefused; // silence for the whole wait, or closed before nine bytes
    }
    const KivHBN3TCPHeader header = KivHBN3TCPHeader::FromBytes(answer);
    if (header.mProtocol != KivHBN3TCPHeader::kProtocol || header.mPayloadLength != 0) {
      return kHBN3OpenRefused;
    }
    return KivHBN3TCPHeader::kLength;
  } catch (const KivExceptions &) {
    // The specific socket error is not carried on: the channel reports failures as its own.
    throw KivExceptions();
  }
}

int KivHBN3TCPSocket::Open(std::string ip, int usbEndPoint,
                           KivEndPointInterface endPointInterface) {
  SetAddress(ip, usbEndPoint);
  mEndPointInterface = endPointInterface;
  return Open();
}

int KivHBN3TCPSocket::Write(unsigned char *msg, int length) {
  try {
    return SendAll(msg, length, 0);
  } catch (const KivExceptions &) {
    return 0; // the untimed write reports every failure as nothing written
  }
}

int KivHBN3TCPSocket::Write(unsigned char *buffer, int length, KivTimeVal timeout) {
  try {
    const int sent = SendAll(buffer, length, timeout, 0);
    return sent == -2 ? kHBN3WaitLimitPassed : sent;
  } catch (const KivExceptions &) {
    throw KivExceptions();
  }
}

void KivHBN3TCPSocket::AdoptConnectedSocket(int descriptor) {
  KivSocket::Close();
  mSocket = descriptor;
  mHeaderHave = 0;
}

int KivHBN3TCPSocket::Close() {
  // Order matters to a listener running on its duplicate of this connection: the flags first, so
  // that whatever wakes it finds them cleared and it makes no further callback; then the
  // shutdown, which acts on the connection itself and wakes a wait or receive blocked on the
  // duplicate at once; last the close of the channel's own descriptor, whose number the listener
  // never uses.
  mIsConnected.store(false);
  mStillListen.store(false);
  if (mSocket != -1) {
    ::shutdown(mSocket, SHUT_RDWR); // fails harmlessly on a channel that never connected
  }
  return KivSocket::Close();
}

// ---- Reading -----------------------------------------------------------------------------------

KivTimeVal KivHBN3TCPSocket::PollPeriod() const {
  const long long micros = mTimeout.load();
  KivTimeVal period = {};
  period.tv_sec = static_cast<time_t>(micros / kMicrosPerSecond);
  period.tv_usec = static_cast<suseconds_t>(micros % kMicrosPerSecond);
  return period;
}

KivHBN3TCPSocket::FrameOutcome
KivHBN3TCPSocket::ReadNextFrame(int descriptor, const KivTimeVal *headerLimit,
                                kiv::KivFrameDestination &destination, bool stoppable) {
  // The header may come in pieces; the pieces read so far survive a wait that runs out.
  while (mHeaderHave < KivHBN3TCPHeader::kLength) {
    if (headerLimit != nullptr && WaitForReadiness(descriptor, POLLIN, *headerLimit) == 0) {
      return {FrameOutcome::TIMED_OUT, 0, false};
    }
    const ssize_t n = ::recv(descriptor, mHeaderBytes + mHeaderHave,
                             static_cast<size_t>(KivHBN3TCPHeader::kLength - mHeaderHave), 0);
    if (n == 0) {
      mHeaderHave = 0;
      return {FrameOutcome::CLOSED, 0, false};
    }
    if (n < 0) {
      throw KivTCPSocketException(CLIENT_RECV_ERROR);
    }
    mHeaderHave += static_cast<int>(n);
  }
  mHeaderHave = 0;
  const KivHBN3TCPHeader header = KivHBN3TCPHeader::FromBytes(mHeaderBytes);
  if (header.mProtocol != KivHBN3TCPHeader::kProtocol) {
    return {FrameOutcome::BAD_HEADER, 0, false};
  }
  const int length = header.mPayloadLength;
  if (length == 0) {
    return {FrameOutcome::TICKLE, 0, false};
  }
  // Checked before anything is allocated: a device cannot make the host reserve what it likes.
  if (length < 0 || length > kHBN3MaxFramePayloadLength) {
    return {FrameOutcome::BAD_HEADER, 0, false};
  }

  unsigned char *room = destination.Room(length);
  unsigned char scratch[4096]; // takes a payload that has no room, so the stream stays in step
  // A zero poll period would make the waits below spin; a millisecond is as prompt.
  KivTimeVal slice = PollPeriod();
  if (slice.tv_sec == 0 && slice.tv_usec < 1000) {
    slice.tv_usec = 1000;
  }
  int got = 0;
  while (got < length) {
    if (stoppable) {
      // The payload has no limit of its own, but a listener told to stop must notice it within a
      // poll period even when the device stalls in the middle of a frame.
      if (!mStillListen.load()) {
        return {FrameOutcome::STOPPED, 0, true};
      }
      if (WaitForReadiness(descriptor, POLLIN, slice) == 0) {
        continue;
      }
    }
    unsigned char *into = room != nullptr ? room + got : scratch;
    const int want =
        room != nullptr ? length - got : std::min(length - got, static_cast<int>(sizeof scratch));
    const ssize_t n = ::recv(descriptor, into, static_cast<size_t>(want), 0);
    if (n == 0) {
      return {FrameOutcome::CLOSED, 0, true};
    }
    if (n < 0) {
      throw KivTCPSocketException(CLIENT_RECV_ERROR);
    }
    got += static_cast<int>(n);
  }
  return {room != nullptr ? FrameOutcome::PAYLOAD : FrameOutcome::DROPPED, length, false};
}

int KivHBN3TCPSocket::Read(KivNetBuffer &buffContainer, KivTimeVal *timeout, int maxTicklePackets) {
  try {
    ReaderSlot slot(*this);
    int tickles = 0;
    for (;;) {
      BlockDestination destination;
      const FrameOutcome frame = ReadNextFrame(mSocket, timeout, destination, false);
      switch (frame.kind) {
      case FrameOutcome::PAYLOAD:
        return buffContainer.SetBuffer(destination.Block(), frame.length);
      case FrameOutcome::TICKLE:
        if (maxTicklePackets > 0 && ++tickles >= maxTicklePackets) {
          return kHBN3WaitLimitPassed;
        }
        continue;
      case FrameOutcome::CLOSED:
        if (frame.inPayload) {
          static const unsigned char kNothing = 0;
          buffContainer.SetBuffer(&kNothing, 0); // what came of the payload is not kept
        }
        return kHBN3PeerClosed;
      case FrameOutcome::BAD_HEADER:
        return kHBN3BadFrameHeader;
      case FrameOutcome::TIMED_OUT:
        return kHBN3WaitLimitPassed;
      case FrameOutcome::DROPPED:
      case FrameOutcome::STOPPED:
        break;
      }
      throw KivExceptions(); // no memory for the payload: consumed, but it cannot be stored
    }
  } catch (const KivExceptions &) {
    throw KivExceptions();
  }
}

int KivHBN3TCPSocket::Read(KivNetBuffer &buffContainer, KivTimeVal timeout, int maxTicklePackets) {
  return Read(buffContainer, &timeout, maxTicklePackets);
}

int KivHBN3TCPSocket::Read(KivNetBuffer &buffContainer, int maxTicklePackets) {
  return Read(buffContainer, nullptr, maxTicklePackets);
}

// ---- Listener ----------------------------------------------------------------------------------

int KivHBN3TCPSocket::RegisterReadCallback(KivSocketReadCallback callback, void *anyObject,
                                           int numSecs, int numUSecs, bool runInSeparateThread,
                                           bool isDetached) {
  mCallbackParameter.store(anyObject);
  mCallback.store(callback);
  mRunInSeparateThread = runInSeparateThread;
  mIsDetached = isDetached;
  const long long micros = static_cast<long long>(numSecs) * kMicrosPerSecond + numUSecs;
  mTimeout.store(std::max(micros, 0LL));
  if (!runInSeparateThread) {
    ReadListener();
    return 0;
  }
  // A thread that would end before its first poll is not started: a joinable one would wait
  // for a join the host cannot make once it has ended.
  if (mListenerCurrentlyRunning.load() || !mIsConnected.load() || callback == nullptr ||
      mEndPointInterface == kMediaInterface) {
    return 0;
  }
  LaunchInSeparateThread();
  return 0;
}

void KivHBN3TCPSocket::LaunchInSeparateThread() {
  // The listener counts as running from here, so a second launch finds it and a host that asks
  // for the thread right after registering gets it.
  bool idle = false;
  if (!mListenerCurrentlyRunning.compare_exchange_strong(idle, true)) {
    return;
  }
  // The duplicate is made here, in the host's thread, so the listener never reads the channel's
  // descriptor field that Close changes.
  const int own = mSocket == -1 ? -1 : ::fcntl(mSocket, F_DUPFD_CLOEXEC, 0);
  mListenerSocket.store(own == -1 ? kLaunchWithoutDescriptor : own);
  mListenerThreaded.store(true);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes,
                              mIsDetached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
  const int created = pthread_create(&mListenerThread, &attributes, ReadListenerStatic, this);
  pthread_attr_destroy(&attributes);
  if (created != 0) {
    const int orphan = mListenerSocket.exchange(kNoLaunch);
    if (orphan >= 0) {
      ::close(orphan);
    }
    mListenerThreaded.store(false);
    mListenerCurrentlyRunning.store(false);
  }
}

void *KivHBN3TCPSocket::ReadListenerStatic(void *param) {
  if (param == nullptr) {
    return nullptr;
  }
  KivHBN3TCPSocket *channel = static_cast<KivHBN3TCPSocket *>(param);
  const int handed = channel->mListenerSocket.exchange(kNoLaunch);
  if (handed == kNoLaunch) {
    // Called directly rather than by a launch: run as a listener of the calling thread.
    if (channel->mEndPointInterface != kMediaInterface) {
      channel->ReadListener();
    }
    return nullptr;
  }
  const int own = handed >= 0 ? handed : -1;
  if (channel->mEndPointInterface == kMediaInterface) {
    if (own >= 0) {
      ::close(own);
    }
    channel->mListenerThreaded.store(false);
    channel->mListenerCurrentlyRunning.store(false);
    return nullptr;
  }
  channel->RunListener(own);
  return nullptr; // the channel is not touched after RunListener: it may be gone already
}

void KivHBN3TCPSocket::ReadListener() {
  bool idle = false;
  if (!mListenerCurrentlyRunning.compare_exchange_strong(idle, true)) {
    return;
  }
  // Called in the host's thread: reading the descriptor field is safe here.
  RunListener(mSocket == -1 ? -1 : ::fcntl(mSocket, F_DUPFD_CLOEXEC, 0));
}

pthread_t *KivHBN3TCPSocket::GetListenerThreadID() {
  return mListenerCurrentlyRunning.load() && mListenerThreaded.load() ? &mListenerThread : nullptr;
}

namespace {

// Calls the host's callback. An exception leaving it (which it must not throw) counts as "stop";
// a thread cancellation passes through.
bool CallHost(KivSocketReadCallback callback, const unsigned char *data, int length, void *param) {
  try {
    return callback(data, length, param);
  } catch (abi::__forced_unwind &) {
    throw;
  } catch (...) {
    return false;
  }
}

} // namespace

void KivHBN3TCPSocket::RunListener(int descriptor) {
  // However the loop ends (a cancelled thread included), the listener's own descriptor is closed
  // and then the channel shows no listener; after that this thread does not touch the channel.
  struct EndOfListening {
    KivHBN3TCPSocket &channel;
    int descriptor;
    ~EndOfListening() {
      if (descriptor >= 0) {
        ::close(descriptor);
      }
      channel.mListenerThreaded.store(false);
      channel.mListenerCurrentlyRunning.store(false);
    }
  } end{*this, descriptor};

  typedef std::chrono::steady_clock Clock;
  // A steady clock: changing the host's time neither ends a listener nor keeps it alive.
  Clock::time_point idleSince = Clock::now();

  // Hands something to the callback unless the listener was told to stop meanwhile; a false
  // answer stops it. Only clearing the flag here means a Close during the call is never undone.
  auto deliver = [this](const unsigned char *data, int length) {
    KivSocketReadCallback callback = mCallback.load();
    if (callback == nullptr || !mStillListen.load()) {
      return false;
    }
    if (!CallHost(callback, data, length, mCallbackParameter.load())) {
      mStillListen.store(false);
    }
    return true;
  };

  while (mStillListen.load() && mCallback.load() != nullptr) {
    if (descriptor < 0) {
      // No descriptor of its own could be made (the process has none left): say so once, stop.
      deliver(nullptr, -4);
      break;
    }
    const KivTimeVal period = PollPeriod();
    int ready = 0;
    try {
      ready = WaitForReadiness(descriptor, POLLIN, period);
    } catch (const KivExceptions &) {
      ready = 0; // a failed wait is treated like one that found nothing
    }
    if (mCallback.load() == nullptr || !mStillListen.load()) {
      break; // unregistered, or Close (whose shutdown may be what woke the wait)
    }
    if (ready == 0) {
      if (Clock::now() - idleSince > std::chrono::seconds(kHBN3ListenerIdleSeconds)) {
        KivSocketReadCallback callback = mCallback.load();
        if (callback != nullptr && !CallHost(callback, nullptr, 1, mCallbackParameter.load())) {
          mStillListen.store(false);
        }
        break; // the idle end, whatever the callback answered
      }
      continue;
    }

    CallbackBlockDestination block;
    FrameOutcome frame = {FrameOutcome::TIMED_OUT, 0, false};
    try {
      ReaderSlot slot(*this);
      // After readiness the header is normally there; a header that is not complete within one
      // poll period sends the listener back to its loop (stop flag, idle rule) with what it has.
      frame = ReadNextFrame(descriptor, &period, block, true);
    } catch (const KivExceptions &) {
      const int error = errno;
      if (!deliver(nullptr, -4)) {
        break;
      }
      if (StopsTheListener(error)) {
        mStillListen.store(false);
      }
      continue;
    } catch (abi::__forced_unwind &) {
      throw;
    } catch (...) {
      if (!deliver(nullptr, 1)) {
        break;
      }
      continue;
    }

    switch (frame.kind) {
    case FrameOutcome::TICKLE:
      idleSince = Clock::now(); // a sign of life, without a callback
      break;
    case FrameOutcome::TIMED_OUT:
      break;
    case FrameOutcome::STOPPED:
      return;
    case FrameOutcome::BAD_HEADER:
    case FrameOutcome::DROPPED:
      if (!deliver(nullptr, 1)) {
        return;
      }
      break;
    case FrameOutcome::CLOSED: {
      // End of stream is handed over as a block of its own (of one byte, length 0), like a frame.
      unsigned char *marker = static_cast<unsigned char *>(std::malloc(1));
      if (marker == nullptr) {
        if (!deliver(nullptr, 1)) {
          return;
        }
        break;
      }
      idleSince = Clock::now();
      if (!deliver(marker, 0)) {
        std::free(marker);
        return;
      }
      break;
    }
    case FrameOutcome::PAYLOAD: {
      idleSince = Clock::now();
      unsigned char *payload = block.Release();
      if (!deliver(payload, frame.length)) {
        std::free(payload); // not handed over: the listener was stopped meanwhile
        return;
      }
      break;
    }
    }
  }
}
