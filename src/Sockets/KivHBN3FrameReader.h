// The HBN3 channel's frame reader: one peek shows many waiting frames, they are handed out from
// that copy, and exactly what was handed out is consumed; large payloads go straight from the
// stream into their destination.
#ifndef KIV_SOCKETS_KIVHBN3FRAMEREADER_H
#define KIV_SOCKETS_KIVHBN3FRAMEREADER_H

#include <sys/time.h>

#include <atomic>

#include "Common/KivTypes.h"

namespace kiv {

// Where the frame reader puts the payload of one data frame. One object per frame read.
class KivFrameDestination {
public:
  // Takes the `length` bytes of a payload at `payload`, which stays valid only during the call.
  // False when the destination does not keep it; the frame is consumed all the same.
  virtual bool Take(const unsigned char *payload, int length) = 0;
  // Room for `length` bytes that the reader receives straight from the stream, or null to have
  // the payload consumed without being kept. Asked at most once per frame.
  virtual unsigned char *Room(int length) = 0;
  // Called once the room from Room holds the whole payload; false when the destination cannot
  // keep it after all.
  virtual bool Filled(int length) = 0;
  // Whether the room from Room may be written before the whole frame is in the stream. When not,
  // a frame that has not wholly come is received elsewhere first and then given to Take, so the
  // room is never left holding part of a frame.
  virtual bool TakesPartialFrames() const = 0;

protected:
  ~KivFrameDestination() = default;
};

// What the reader found next in the stream. Eight bytes, so that it comes back in a register.
struct KivFrameOutcome {
  enum Kind {
    PAYLOAD,           // the destination holds a payload of `length` bytes
    DROPPED,           // a payload of `length` bytes was consumed; the destination did not keep it
    UNSTORED,          // a payload of `length` bytes was consumed; no memory to stage it
    TICKLE,            // a tickle packet (a header of length 0) was consumed
    CLOSED,            // end of stream between frames
    CLOSED_IN_PAYLOAD, // end of stream inside a payload (what came of it is consumed)
    BAD_HEADER, // a header without "HBN3", or a negative or too large length (nine bytes consumed)
    TIMED_OUT,  // a wait for header bytes ran out; the bytes that came are kept
    STOPPED,    // told to stop while receiving a payload
  };
  Kind kind;
  int length;
};

// How a reader that may be told to stop waits for payload bytes: in slices, between which a
// cleared `keepGoing` ends the read (STOPPED).
struct KivFrameStop {
  const std::atomic<bool> *keepGoing;
  timeval slice;
};

// Reads the frames of one stream descriptor for one reader at a time (the caller makes sure of
// that). No byte of a frame leaves the stream before the frame has been handed out: a peek
// copies what is waiting, frames are handed out from the copy, and the bytes handed out are
// consumed in one receive as soon as the copy holds no further whole frame (else before the next
// peek or direct receive). So whoever waits on the descriptor between reads is woken while a
// frame not yet handed out is waiting, and not by bytes already handed out.
//
// Payloads up to kCopiedPayloadLimit bytes are handed out from the copy; longer ones, and frames
// that have not wholly come, are received straight into the destination's room together with
// their header, which is peeked first. A frame without room (a destination that does not keep
// it) is consumed without being copied on TCP streams. A header that has come only in part is
// the one exception to the rule above: its bytes are taken out and kept by the reader while it
// waits for the rest (and after a limit passed), as the rest of that frame is still to come and
// wakes a waiting host all the same.
//
// The copy (kCopyCapacity bytes) is allocated at the first read and kept until Release or
// destruction.
class KivHBN3FrameReader {
public:
  static constexpr int kCopyCapacity = 256 * 1024;
  static constexpr int kCopiedPayloadLimit = 32 * 1024;

  KivHBN3FrameReader() = default;
  ~KivHBN3FrameReader();
  KivHBN3FrameReader(const KivHBN3FrameReader &) = delete;
  KivHBN3FrameReader &operator=(const KivHBN3FrameReader &) = delete;

  // Reads the next item of the stream `descriptor`: one frame header, with its payload for a
  // data frame. `headerLimit` bounds each wait for header bytes (null: no limit). A payload,
  // once its header has come, is waited for without a limit, or with `stop` in its slices.
  // Throws KivTCPSocketException (CLIENT_RECV_ERROR, SELECT_ERROR) when a receive or wait fails,
  // with errno saying why, and std::bad_alloc when the copy cannot be allocated. A failure to
  // consume bytes already handed out is reported by the next call.
  KivFrameOutcome Next(int descriptor, const timeval *headerLimit, KivFrameDestination &destination,
                       const KivFrameStop *stop);

  // Whether the copy holds a whole item, which the next call hands out without a system call.
  // (Between calls the copy holds one whenever it holds anything: it is consumed and forgotten
  // as soon as it does not.)
  bool HoldsItem() const { return mCopied > mDelivered; }

  // Consumes what was handed out and forgets the rest of the copy (the stream still holds it),
  // so another reader can start on the stream. Failures are ignored.
  void Settle(int descriptor) noexcept;

  // A new connection: forgets the copy, header bytes kept and the stream's kind. Keeps memory.
  void Restart() noexcept;

  // The connection has gone: forgets everything and releases the copy's memory.
  void Release() noexcept;

private:
  enum StreamKind { kUnknownStream, kTcpStream, kOtherStream };

  KivFrameOutcome Direct(int descriptor, int length, KivFrameDestination &destination,
                         const KivFrameStop *stop, bool headerInStream);
  KivFrameOutcome HeldHeaderFrame(int descriptor, const timeval *headerLimit,
                                  KivFrameDestination &destination, const KivFrameStop *stop);
  void TakeHeaderPart(int descriptor);
  // Marks `count` bytes at the copy's position handed out; consumes them with the rest handed
  // out when no whole item is left.
  void HandOut(int descriptor, int count) {
    mDelivered += count;
    if (!WholeItemAhead()) {
      FlushHandedOut(descriptor);
    }
  }
  void FlushHandedOut(int descriptor) noexcept;
  bool WholeItemAhead() const;
  void Flush(int descriptor);
  void EnsureCopy();

  unsigned char *mCopy = nullptr; // kCopyCapacity bytes once allocated
  int mCopied = 0;                // bytes in the copy; the stream holds them all, from the first
  int mDelivered = 0;             // bytes at the copy's start handed out but not yet consumed
  int mWanted = 0;                // how many bytes the peek that made the copy asked for
  bool mLargeRun = false;         // the last frame was large: the next peek asks for a header
  StreamKind mStream = kUnknownStream;
  int mPendingError = 0;              // errno of a failed consumption, reported next
  unsigned char mHeaderBytes[9] = {}; // header bytes taken out before the rest had come
  int mHeaderHave = 0;
};

} // namespace kiv

#endif // KIV_SOCKETS_KIVHBN3FRAMEREADER_H
