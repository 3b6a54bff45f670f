// The HBN3 channel's frame reader: batches of frames from one peek, payloads straight into place.
#include "Sockets/KivHBN3FrameReader.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

#include "CommonFiles/KivWireBytes.h"
#include "Exceptions/KivSocketExceptions.h"
#include "Sockets/KivHBN3TCPSocket.h"

namespace kiv {

namespace {

constexpr int kHeader = KivHBN3TCPHeader::kLength;

[[noreturn]] void ReceiveFailed() { throw KivTCPSocketException(CLIENT_RECV_ERROR); }

bool WouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

// Waits for `events` on `descriptor` for at most `limit` (null: no limit): the events found, 0
// when the limit passed. A failed wait, or a descriptor that is not open, is SELECT_ERROR.
short WaitFor(int descriptor, short events, const timeval *limit) {
  if (descriptor < 0) {
    errno = EBADF; // poll would ignore it and just sleep
    throw KivTCPSocketException(SELECT_ERROR);
  }
  timespec wait = {};
  if (limit != nullptr) {
    wait.tv_sec = limit->tv_sec;
    wait.tv_nsec = static_cast<long>(limit->tv_usec) * 1000;
  }
  pollfd watched = {descriptor, events, 0};
  const int ready = ::ppoll(&watched, 1, limit != nullptr ? &wait : nullptr, nullptr);
  if (ready == -1) {
    throw KivTCPSocketException(SELECT_ERROR);
  }
  if (ready > 0 && (watched.revents & POLLNVAL) != 0) {
    errno = EBADF;
    throw KivTCPSocketException(SELECT_ERROR);
  }
  return ready > 0 ? watched.revents : 0;
}

// Bytes waiting in the stream; 0 when the platform does not say.
int Available(int descriptor) {
  int waiting = 0;
  return ::ioctl(descriptor, FIONREAD, &waiting) == 0 ? waiting : 0;
}

// Whether a header announces a frame of its own and a payload length within bounds.
bool IsBadHeader(UInt32 protocol, int length) {
  return protocol != KivHBN3TCPHeader::kProtocol || length < 0 ||
         length > kHBN3MaxFramePayloadLength;
}

} // namespace

KivHBN3FrameReader::~KivHBN3FrameReader() { delete[] mCopy; }

void KivHBN3FrameReader::EnsureCopy() {
  if (mCopy == nullptr) {
    mCopy = new unsigned char[kCopyCapacity];
  }
}

void KivHBN3FrameReader::Restart() noexcept {
  mCopied = 0;
  mDelivered = 0;
  mWanted = 0;
  mLargeRun = false;
  mStream = kUnknownStream;
  mPendingError = 0;
  mHeaderHave = 0;
}

void KivHBN3FrameReader::Release() noexcept {
  Restart();
  delete[] mCopy;
  mCopy = nullptr;
}

bool KivHBN3FrameReader::WholeItemAhead() const {
  const int waiting = mCopied - mDelivered;
  if (waiting < kHeader) {
    return false;
  }
  const unsigned char *at = mCopy + mDelivered;
  const int length = static_cast<int>(ReadBE32(at + 5));
  if (IsBadHeader(ReadBE32(at), length) || length == 0) {
    return true;
  }
  return length <= kCopiedPayloadLimit && waiting - kHeader >= length;
}

void KivHBN3FrameReader::Flush(int descriptor) {
  int left = mDelivered;
  mCopied = 0;
  mDelivered = 0;
  // On TCP, MSG_TRUNC consumes without copying; other stream sockets copy into the spent copy.
  const int flags = MSG_DONTWAIT | (mStream == kTcpStream ? MSG_TRUNC : 0);
  while (left > 0) {
    const ssize_t n = ::recv(descriptor, mCopy, static_cast<size_t>(left), flags);
    if (n > 0) {
      left -= static_cast<int>(n);
    } else if (n == 0 || WouldBlock()) {
      return; // the stream ended, or lost its bytes to a reset: nothing more to consume
    } else {
      ReceiveFailed();
    }
  }
}

// Kept apart from HandOut, which runs for every frame and so stays small enough to be inlined.
void KivHBN3FrameReader::FlushHandedOut(int descriptor) noexcept {
  // Nothing whole left in the copy: consume now what was handed out, so a host waiting on the
  // descriptor is not woken by it. A failure is told at the next read, not instead of this one.
  try {
    Flush(descriptor);
  } catch (const KivSocketException &) {
    mPendingError = errno != 0 ? errno : EIO;
  }
}

void KivHBN3FrameReader::Settle(int descriptor) noexcept {
  if (descriptor >= 0 && mDelivered > 0) {
    try {
      Flush(descriptor);
    } catch (const KivSocketException &) {
      // the stream has failed; the next reader finds out for itself
    }
  }
  mCopied = 0;
  mDelivered = 0;
  mLargeRun = false;
}

KivFrameOutcome KivHBN3FrameReader::Next(int descriptor, const timeval *headerLimit,
                                         KivFrameDestination &destination,
                                         const KivFrameStop *stop) {
  if (mPendingError != 0) {
    errno = mPendingError;
    mPendingError = 0;
    ReceiveFailed();
  }
  if (mStream == kUnknownStream) {
    int protocol = 0;
    socklen_t size = sizeof protocol;
    const bool tcp = ::getsockopt(descriptor, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0 &&
                     protocol == IPPROTO_TCP;
    mStream = tcp ? kTcpStream : kOtherStream;
  }
  for (;;) {
    if (mHeaderHave > 0) {
      return HeldHeaderFrame(descriptor, headerLimit, destination, stop);
    }
    const int waiting = mCopied - mDelivered;
    if (waiting >= kHeader) {
      const unsigned char *at = mCopy + mDelivered;
      const int length = static_cast<int>(ReadBE32(at + 5));
      if (IsBadHeader(ReadBE32(at), length)) {
        HandOut(descriptor, kHeader); // only the header: what follows is read as the next one
        return {KivFrameOutcome::BAD_HEADER, 0};
      }
      if (length == 0) {
        HandOut(descriptor, kHeader);
        return {KivFrameOutcome::TICKLE, 0};
      }
      if (length <= kCopiedPayloadLimit) {
        if (waiting - kHeader >= length) {
          const bool kept = destination.Take(at + kHeader, length);
          HandOut(descriptor, kHeader + length);
          return {kept ? KivFrameOutcome::PAYLOAD : KivFrameOutcome::DROPPED, length};
        }
        if (mCopied == mWanted && (mWanted < kCopyCapacity || mDelivered > 0)) {
          // The copy was cut off by its own size, not by the stream: look again from here.
          Flush(descriptor);
          mLargeRun = false;
          continue;
        }
      }
      // A large payload, or a frame that has not wholly come: received from its header on.
      Flush(descriptor);
      return Direct(descriptor, length, destination, stop, true);
    }

    Flush(descriptor);
    EnsureCopy();
    const int want = mLargeRun ? kHeader : kCopyCapacity;
    // Only an unlimited read may block in the peek; the others wait with their limit below.
    const bool blocking = headerLimit == nullptr && stop == nullptr;
    const ssize_t n = ::recv(descriptor, mCopy, static_cast<size_t>(want),
                             MSG_PEEK | (blocking ? 0 : MSG_DONTWAIT));
    if (n >= kHeader) {
      mCopied = static_cast<int>(n);
      mWanted = want;
      continue;
    }
    if (n > 0) {
      TakeHeaderPart(descriptor);
      continue;
    }
    if (n == 0) {
      return {KivFrameOutcome::CLOSED, 0};
    }
    if (!blocking && WouldBlock()) {
      if (WaitFor(descriptor, POLLIN, headerLimit) == 0) {
        return {KivFrameOutcome::TIMED_OUT, 0};
      }
      continue;
    }
    ReceiveFailed();
  }
}

// Fewer bytes than a header are waiting (and the copy is empty): they are taken out and kept,
// and the rest of the header is waited for with a plain wait on an empty stream. Left in the
// stream, the part would keep the descriptor readable, so a host waiting on it between reads
// would spin until the rest came; and on TCP it pins a whole segment's memory, which can close
// the receive window for good when the receive buffer is small. The rest of the frame is still to
// come, so a host waiting on the descriptor is woken by it all the same.
void KivHBN3FrameReader::TakeHeaderPart(int descriptor) {
  const ssize_t n = ::recv(descriptor, mHeaderBytes, kHeader, MSG_DONTWAIT);
  if (n < 0 && !WouldBlock()) {
    ReceiveFailed();
  }
  mHeaderHave = n > 0 ? static_cast<int>(n) : 0;
}

// Header bytes were taken out of the stream: the rest of the header is taken out too, each
// wait bounded by `headerLimit`, and the payload is received from the stream.
KivFrameOutcome KivHBN3FrameReader::HeldHeaderFrame(int descriptor, const timeval *headerLimit,
                                                    KivFrameDestination &destination,
                                                    const KivFrameStop *stop) {
  while (mHeaderHave < kHeader) {
    if (headerLimit != nullptr && WaitFor(descriptor, POLLIN, headerLimit) == 0) {
      return {KivFrameOutcome::TIMED_OUT, 0};
    }
    const ssize_t n = ::recv(descriptor, mHeaderBytes + mHeaderHave,
                             static_cast<size_t>(kHeader - mHeaderHave), 0);
    if (n == 0) {
      mHeaderHave = 0;
      return {KivFrameOutcome::CLOSED, 0};
    }
    if (n < 0) {
      ReceiveFailed();
    }
    mHeaderHave += static_cast<int>(n);
  }
  mHeaderHave = 0;
  const int length = static_cast<int>(ReadBE32(mHeaderBytes + 5));
  if (IsBadHeader(ReadBE32(mHeaderBytes), length)) {
    return {KivFrameOutcome::BAD_HEADER, 0};
  }
  if (length == 0) {
    return {KivFrameOutcome::TICKLE, 0};
  }
  return Direct(descriptor, length, destination, stop, false);
}

// Receives one frame straight from the stream, which begins with its header (`headerInStream`)
// or its payload; the copy is empty. The header goes to scratch, the payload into the
// destination's room, or is consumed unkept when there is none.
KivFrameOutcome KivHBN3FrameReader::Direct(int descriptor, int length,
                                           KivFrameDestination &destination,
                                           const KivFrameStop *stop, bool headerInStream) {
  mLargeRun = length > kCopiedPayloadLimit;
  const long headerPart = headerInStream ? kHeader : 0;
  const long total = headerPart + length;
  unsigned char *room = destination.Room(length);
  unsigned char *staged = nullptr;
  std::unique_ptr<unsigned char[]> stage;
  bool unstored = false;
  if (room != nullptr && !destination.TakesPartialFrames() && Available(descriptor) < total) {
    // The frame has not wholly come and the room must never hold part of one: the frame goes
    // to a place of the reader's own first.
    if (total <= kCopyCapacity) {
      EnsureCopy();
      staged = mCopy;
    } else {
      stage.reset(new (std::nothrow) unsigned char[static_cast<size_t>(length)]);
      staged = stage.get();
    }
    unstored = staged == nullptr;
    room = staged;
  }
  if (room == nullptr) {
    EnsureCopy(); // the nominal area of the consuming receives
  }

  unsigned char header[kHeader];
  // A reader that may be stopped never blocks in a receive: it waits in slices instead.
  const int flags = stop != nullptr ? MSG_DONTWAIT : MSG_WAITALL;
  long got = 0;
  while (got < total) {
    if (stop != nullptr && !stop->keepGoing->load(std::memory_order_acquire)) {
      return {KivFrameOutcome::STOPPED, 0};
    }
    ssize_t n = 0;
    if (room == nullptr) {
      const size_t chunk = static_cast<size_t>(std::min<long>(total - got, kCopyCapacity));
      n = ::recv(descriptor, mCopy, chunk, flags | (mStream == kTcpStream ? MSG_TRUNC : 0));
    } else {
      iovec parts[2];
      int count = 0;
      if (got < headerPart) {
        parts[count++] = {header + got, static_cast<size_t>(headerPart - got)};
      }
      const long payloadGot = std::max(0L, got - headerPart);
      parts[count++] = {room + payloadGot, static_cast<size_t>(length - payloadGot)};
      msghdr message = {};
      message.msg_iov = parts;
      message.msg_iovlen = static_cast<size_t>(count);
      n = ::recvmsg(descriptor, &message, flags);
    }
    if (n > 0) {
      got += n;
      continue;
    }
    if (n == 0) {
      return {KivFrameOutcome::CLOSED_IN_PAYLOAD, 0};
    }
    if (stop != nullptr && WouldBlock()) {
      WaitFor(descriptor, POLLIN, &stop->slice);
      continue;
    }
    ReceiveFailed();
  }
  if (unstored) {
    return {KivFrameOutcome::UNSTORED, length};
  }
  bool kept = false;
  if (staged != nullptr) {
    kept = destination.Take(staged, length);
  } else if (room != nullptr) {
    kept = destination.Filled(length);
  }
  return {kept ? KivFrameOutcome::PAYLOAD : KivFrameOutcome::DROPPED, length};
}

} // namespace kiv
