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
#include <cstring>
#include <memory>
#include <new>
#include <thread>

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

namespace {

using kiv::KivFrameOutcome;

// A read into a container: the payload is stored with SetBuffer, from the reader's copy or from
// a block of exactly its length that a large payload is received into.
class ContainerDestination : public kiv::KivFrameDestination {
public:
  explicit ContainerDestination(KivNetBuffer &box) : mBox(box) {}
  bool Take(const unsigned char *payload, int length) override { return Store(payload, length); }
  unsigned char *Room(int length) override {
    mBlock.reset(new (std::nothrow) unsigned char[static_cast<size_t>(length)]);
    return mBlock.get();
  }
  bool Filled(int length) override { return Store(mBlock.get(), length); }
  bool TakesPartialFrames() const override { return true; }

private:
  // A container that cannot take the bytes (no memory) loses the frame, which is consumed.
  bool Store(const unsigned char *payload, int length) {
    try {
      mBox.SetBuffer(payload, length);
      return true;
    } catch (...) {
      return false;
    }
  }

  KivNetBuffer &mBox;
  std::unique_ptr<unsigned char[]> mBlock;
};

// A read into the host's buffer: whole frames that fit only; none at all when it is null.
class CallerBufferDestination : public kiv::KivFrameDestination {
public:
  CallerBufferDestination(unsigned char *buffer, int capacity)
      : mBuffer(buffer), mCapacity(capacity) {}
  bool Take(const unsigned char *payload, int length) override {
    if (!Fits(length)) {
      return false;
    }
    std::memcpy(mBuffer, payload, static_cast<size_t>(length));
    return true;
  }
  unsigned char *Room(int length) override { return Fits(length) ? mBuffer : nullptr; }
  bool Filled(int) override { return true; }
  bool TakesPartialFrames() const override { return false; }
  // A payload was not kept because it did not fit (rather than because there is no buffer).
  bool TooLarge() const { return mTooLarge; }

private:
  bool Fits(int length) {
    if (mBuffer == nullptr) {
      return false;
    }
    mTooLarge = length > mCapacity;
    return !mTooLarge;
  }

  unsigned char *mBuffer;
  int mCapacity;
  bool mTooLarge = false;
};

// A block from the C allocator, for the listener: handed to the callback, which frees it.
class CallbackBlockDestination : public kiv::KivFrameDestination {
public:
  ~CallbackBlockDestination() { std::free(mBlock); }
  bool Take(const unsigned char *payload, int length) override {
    if (Room(length) == nullptr) {
      return false;
    }
    std::memcpy(mBlock, payload, static_cast<size_t>(length));
    return true;
  }
  unsigned char *Room(int length) override {
    std::free(mBlock);
    mBlock = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(length)));
    return mBlock;
  }
  bool Filled(int) override { return true; }
  bool TakesPartialFrames() const override { return true; }
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

// Held while a frame is read, and by a listener for as long as it runs: the frame reader's copy
// and position are the channel's, so only one reader may run at a time. A second one is refused
// rather than left to race over them.
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

// ---- Construction, open, write -----------------------------------------------------------------

KivHBN3TCPSocket::KivHBN3TCPSocket(std::string ip, int usbEndPoint,
                                   KivEndPointInterface endPointInterface)
    : KivTCPClientSocket(ip, usbEndPoint), mCallback(nullptr), mCallbackParameter(nullptr),
      mEndPointInterface(endPointInterface), mTimeout(kHBN3DefaultPollSeconds * kMicrosPerSecond),
      mIsConnected(true), mRunInSeparateThread(false), mIsDetached(false), mStillListen(true),
      mListenerCurrentlyRunning(false), mListenerThread(),
      mStorageBuffer(), mOpenAnswerLimit{kHBN3OpenAnswerSeconds, 0}, mReading(false),
      mListenerThreaded(false), mListenerSocket(kNoLaunch), mReader() {}

// The container does not release its storage when destroyed; the channel does.
KivHBN3TCPSocket::~KivHBN3TCPSocket() {
  kiv::ForgetHandle(this, kKivTCPClientSocketClassID);
  mStorageBuffer.ResetBuffer();
}

int KivHBN3TCPSocket::Open() {
  mStorageBuffer.ResetBuffer();
  mReader.Restart(); // a new connection starts a new stream
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
  mReader.Restart();
}

int KivHBN3TCPSocket::Close() {
  // Order matters to a listener running on its duplicate of this connection: the flags first, so
  // that whatever wakes it finds them cleared and it makes no further callback; then the
  // shutdown, which acts on the connection itself and wakes a wait or receive blocked on the
  // duplicate at once; then the close of the channel's own descriptor, whose number the listener
  // never uses. Last the reader's copy, unless a listener still holds it.
  mIsConnected.store(false);
  mStillListen.store(false);
  if (mSocket != -1) {
    ::shutdown(mSocket, SHUT_RDWR); // fails harmlessly on a channel that never connected
  }
  const int closed = KivSocket::Close();
  ReleaseReaderIfIdle();
  return closed;
}

void KivHBN3TCPSocket::ReleaseReaderIfIdle() {
  if (!mReading.exchange(true)) {
    mReader.Release();
    mReading.store(false);
  }
}

// ---- Reading -----------------------------------------------------------------------------------

KivTimeVal KivHBN3TCPSocket::PollPeriod() const {
  const long long micros = mTimeout.load();
  KivTimeVal period = {};
  period.tv_sec = static_cast<time_t>(micros / kMicrosPerSecond);
  period.tv_usec = static_cast<suseconds_t>(micros % kMicrosPerSecond);
  return period;
}

namespace {

// A limit the platform's wait accepts.
bool IsValidLimit(const KivTimeVal &limit) {
  return limit.tv_sec >= 0 && limit.tv_usec >= 0 && limit.tv_usec < kMicrosPerSecond;
}

} // namespace

KivFrameOutcome KivHBN3TCPSocket::ReadFrame(const KivTimeVal *timeout, int maxTicklePackets,
                                            kiv::KivFrameDestination &destination) {
  ReaderSlot slot(*this);
  // Refused as the wait itself would refuse it, whether or not a wait turns out to be needed.
  if (timeout != nullptr && !IsValidLimit(*timeout)) {
    errno = EINVAL;
    throw KivExceptions();
  }
  if (mSocket == -1) {
    errno = EBADF; // closed: what the reader still holds belongs to the connection that went
    throw KivExceptions();
  }
  int tickles = 0;
  for (;;) {
    const KivFrameOutcome frame = mReader.Next(mSocket, timeout, destination, nullptr);
    if (frame.kind != KivFrameOutcome::TICKLE) {
      return frame;
    }
    if (maxTicklePackets > 0 && ++tickles >= maxTicklePackets) {
      return {KivFrameOutcome::TIMED_OUT, 0};
    }
  }
}

int KivHBN3TCPSocket::Read(KivNetBuffer &buffContainer, KivTimeVal *timeout, int maxTicklePackets) {
  try {
    ContainerDestination destination(buffContainer);
    const KivFrameOutcome frame = ReadFrame(timeout, maxTicklePackets, destination);
    switch (frame.kind) {
    case KivFrameOutcome::PAYLOAD:
      return frame.length;
    case KivFrameOutcome::CLOSED_IN_PAYLOAD: {
      static const unsigned char kNothing = 0;
      buffContainer.SetBuffer(&kNothing, 0); // what came of the payload is not kept
      return kHBN3PeerClosed;
    }
    case KivFrameOutcome::CLOSED:
      return kHBN3PeerClosed;
    case KivFrameOutcome::BAD_HEADER:
      return kHBN3BadFrameHeader;
    case KivFrameOutcome::TIMED_OUT:
      return kHBN3WaitLimitPassed;
    case KivFrameOutcome::DROPPED:
    case KivFrameOutcome::UNSTORED:
    case KivFrameOutcome::TICKLE:
    case KivFrameOutcome::STOPPED:
      break;
    }
    throw KivExceptions(); // no memory for the payload: consumed, but it cannot be stored
  } catch (const KivExceptions &) {
    throw KivExceptions();
  } catch (const std::bad_alloc &) {
    throw KivExceptions();
  }
}

int KivHBN3TCPSocket::Read(KivNetBuffer &buffContainer, KivTimeVal timeout, int maxTicklePackets) {
  return Read(buffContainer, &timeout, maxTicklePackets);
}

int KivHBN3TCPSocket::Read(KivNetBuffer &buffContainer, int maxTicklePackets) {
  return Read(buffContainer, nullptr, maxTicklePackets);
}

int KivHBN3TCPSocket::ReadInto(unsigned char *buffer, int capacity, const KivTimeVal *timeout,
                               int maxTicklePackets) {
  try {
    CallerBufferDestination destination(buffer, capacity);
    const KivFrameOutcome frame = ReadFrame(timeout, maxTicklePackets, destination);
    switch (frame.kind) {
    case KivFrameOutcome::PAYLOAD:
      return frame.length;
    case KivFrameOutcome::DROPPED:
      if (!destination.TooLarge()) {
        return frame.length; // no buffer: read and dropped
      }
      break; // consumed and lost
    case KivFrameOutcome::CLOSED:
    case KivFrameOutcome::CLOSED_IN_PAYLOAD:
      return kHBN3PeerClosed;
    case KivFrameOutcome::BAD_HEADER:
      return kHBN3BadFrameHeader;
    case KivFrameOutcome::TIMED_OUT:
      return kHBN3WaitLimitPassed;
    case KivFrameOutcome::UNSTORED:
    case KivFrameOutcome::TICKLE:
    case KivFrameOutcome::STOPPED:
      break;
    }
    throw KivExceptions();
  } catch (const KivExceptions &) {
    throw KivExceptions();
  } catch (const std::bad_alloc &) {
    throw KivExceptions();
  }
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
  // However the loop ends (a cancelled thread included): what was handed out is consumed and the
  // reader slot given back (with the reader's copy released if the channel was closed meanwhile),
  // the listener's own descriptor is closed, and then the channel shows no listener; after that
  // this thread does not touch the channel.
  struct EndOfListening {
    KivHBN3TCPSocket &channel;
    int descriptor;
    bool holdsSlot;
    ~EndOfListening() {
      if (holdsSlot) {
        channel.mReader.Settle(descriptor);
        channel.mReading.store(false);
      }
      if (!channel.mIsConnected.load()) {
        channel.ReleaseReaderIfIdle(); // Close could not, while the listener held the slot
      }
      if (descriptor >= 0) {
        ::close(descriptor);
      }
      channel.mListenerThreaded.store(false);
      channel.mListenerCurrentlyRunning.store(false);
    }
  } end{*this, descriptor, false};

  typedef std::chrono::steady_clock Clock;
  // A steady clock: changing the host's time neither ends a listener nor keeps it alive.
  Clock::time_point idleSince = Clock::now();

  // Hands something to the callback unless the listener was told to stop meanwhile; a false
  // answer stops it. Only clearing the flag here means a Close during the call is never undone.
  // Called for every frame: loads only, no ordering stronger than the flags need.
  auto deliver = [this](const unsigned char *data, int length) {
    KivSocketReadCallback callback = mCallback.load(std::memory_order_acquire);
    if (callback == nullptr || !mStillListen.load(std::memory_order_acquire)) {
      return false;
    }
    if (!CallHost(callback, data, length, mCallbackParameter.load(std::memory_order_acquire))) {
      mStillListen.store(false);
    }
    return true;
  };

  long long periodMicros = -1;
  KivTimeVal period = {};
  kiv::KivFrameStop stop = {&mStillListen, {}};
  while (mStillListen.load(std::memory_order_acquire) &&
         mCallback.load(std::memory_order_acquire) != nullptr) {
    if (descriptor < 0) {
      // No descriptor of its own could be made (the process has none left): say so once, stop.
      deliver(nullptr, -4);
      break;
    }
    if (mTimeout.load(std::memory_order_relaxed) != periodMicros) {
      periodMicros = mTimeout.load(std::memory_order_relaxed);
      period = PollPeriod();
      // A zero poll period would make the payload waits spin; a millisecond is as prompt.
      stop.slice = period;
      if (stop.slice.tv_sec == 0 && stop.slice.tv_usec < 1000) {
        stop.slice.tv_usec = 1000;
      }
    }
    if (!end.holdsSlot) {
      // The listener is the channel's reader for as long as it runs. A host's read in progress
      // (which it must not make while a listener runs) is reported like a failed read.
      if (mReading.exchange(true)) {
        if (!deliver(nullptr, -4)) {
          break;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(std::max(periodMicros, 1000LL)));
        continue;
      }
      end.holdsSlot = true;
    }

    CallbackBlockDestination block;
    KivFrameOutcome frame = {KivFrameOutcome::TIMED_OUT, 0};
    try {
      // Frames waiting in the reader's copy come at once; otherwise it waits at most one poll
      // period for header bytes, and a payload in slices between which it sees a stop.
      frame = mReader.Next(descriptor, &period, block, &stop);
    } catch (const KivSocketException &failure) {
      // A failed wait is treated like one that found nothing; a failed receive is reported.
      if (failure.GetErrorType() != SELECT_ERROR) {
        const int error = errno;
        if (!deliver(nullptr, -4)) {
          break;
        }
        if (StopsTheListener(error)) {
          mStillListen.store(false);
        }
        continue;
      }
    } catch (abi::__forced_unwind &) {
      throw;
    } catch (...) {
      if (!deliver(nullptr, 1)) {
        break;
      }
      continue;
    }

    switch (frame.kind) {
    case KivFrameOutcome::TIMED_OUT:
      if (mCallback.load() == nullptr || !mStillListen.load()) {
        return; // unregistered, or Close
      }
      if (Clock::now() - idleSince > std::chrono::seconds(kHBN3ListenerIdleSeconds)) {
        KivSocketReadCallback callback = mCallback.load();
        if (callback != nullptr && !CallHost(callback, nullptr, 1, mCallbackParameter.load())) {
          mStillListen.store(false);
        }
        return; // the idle end, whatever the callback answered
      }
      break;
    case KivFrameOutcome::TICKLE:
      idleSince = Clock::now(); // a sign of life, without a callback
      break;
    case KivFrameOutcome::STOPPED:
      return;
    case KivFrameOutcome::BAD_HEADER:
    case KivFrameOutcome::DROPPED:
    case KivFrameOutcome::UNSTORED:
      if (!deliver(nullptr, 1)) {
        return;
      }
      break;
    case KivFrameOutcome::CLOSED:
    case KivFrameOutcome::CLOSED_IN_PAYLOAD: {
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
    case KivFrameOutcome::PAYLOAD: {
      unsigned char *payload = block.Release();
      if (!deliver(payload, frame.length)) {
        std::free(payload); // not handed over: the listener was stopped meanwhile
        return;
      }
      // The clock is read once a batch is used up, not for every frame of it: microseconds
      // after its last frame, which is what the idle rule counts from.
      if (!mReader.HoldsItem()) {
        idleSince = Clock::now();
      }
      break;
    }
    }
  }
}
