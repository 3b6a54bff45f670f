// The framed HBN3 TCP channel to one end-point interface of a device (scan, HID, print, media):
// the open handshake, raw writes, frame reads, and the listener that hands frames to a callback.
#ifndef KIV_SOCKETS_KIVHBN3TCPSOCKET_H
#define KIV_SOCKETS_KIVHBN3TCPSOCKET_H

#include <pthread.h>

#include <atomic>
#include <string>

#include "Common/Constants/KivCommunicationConstants.h"
#include "Common/KivTypes.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Sockets/KivHBN3FrameReader.h"
#include "Sockets/KivTCPClientSocket.h"

// The largest payload a frame may announce: 64 MiB. A frame header that announces more, or a
// negative length, is a bad frame header: a read returns -2 without allocating anything, and the
// listener reports it as an unexpected failure (null, 1).
constexpr int kHBN3MaxFramePayloadLength = 64 * 1024 * 1024;

// Results of the channel's operations besides a byte count (all int).
constexpr int kHBN3OpenRefused = -1;     // the open handshake got no valid answer
constexpr int kHBN3BadFrameHeader = -2;  // a frame header without "HBN3", or a bad length
constexpr int kHBN3WaitLimitPassed = -5; // a wait limit passed (or too many tickle packets)
constexpr int kHBN3PeerClosed = 0;       // the device closed the connection (read)

// How long the listener waits per poll when no time was registered: 3 s.
constexpr int kHBN3DefaultPollSeconds = 3;
// A listener ends after more than this many seconds without a frame (or tickle packet).
constexpr int kHBN3ListenerIdleSeconds = 20;
// How long Open waits for the device's answer to the open request (per wait): 60 s.
constexpr int kHBN3OpenAnswerSeconds = 60;

// The nine-byte frame header of the HBN3 channel: "HBN3", one byte not examined on receipt, and
// the big-endian signed payload length. A frame with length 0 is a tickle packet (no payload),
// which readers skip. The open requests have the same layout with the interface code in the
// place of the length.
struct KIV_EXPORT KivHBN3TCPHeader {
  static constexpr int kLength = 9;
  static constexpr UInt32 kProtocol = 0x48424E33; // "HBN3"

  UInt32 mProtocol = 0;   // bytes 0-3, big-endian
  UInt8 mDummy = 0;       // byte 4; 0 in the open requests
  int mPayloadLength = 0; // bytes 5-8, big-endian, signed

  // The header held by the nine bytes at `bytes`.
  static KivHBN3TCPHeader FromBytes(const unsigned char *bytes);
  // Writes the nine bytes of the header to `bytes`.
  void ToBytes(unsigned char *bytes) const;
};

// The listener's callback. Called in the listener's thread with the registered `param`:
//   data = a block, length > 0: the payload of one frame;
//   data = a block, length 0: the device closed the connection (repeated until it answers false);
//   data = null, length -4: a socket failure while reading;
//   data = null, length 1: an unexpected failure (a bad frame header among them), or the end
//                          after more than 20 s idle (the answer is then ignored).
// Answer true to keep listening, false to stop. Ownership: every block belongs to the callback,
// which releases it with free() (it was allocated with malloc); the listener never touches it
// again. The callback must not throw; an exception leaving it stops the listener.
typedef bool (*KivSocketReadCallback)(const unsigned char *data, int length, void *param);

// A TCP connection to one end-point interface of a device (class identifier "tcpC"). Open
// connects and sends the interface's nine-byte open request; the device answers with a bare frame
// header. Afterwards the device sends frames (header + payload) and the host writes raw bytes.
//
// Reads: tickle packets are skipped, a payload is read whole (without a limit once its header
// has come), and the results are the payload length, 0 (closed), -2 (bad frame header) or -5 (a
// wait limit passed). Header bytes that came before a limit passed are kept for the next read,
// so the stream stays in step. After -2 the stream is inside data of unknown layout; nothing
// resynchronises it. One reader at a time: a read started while another read or a listener runs
// fails with a plain KivExceptions.
//
// Frames are read in batches (see KivHBN3FrameReader): one peek shows the frames waiting, the
// reads hand them out one by one, and the bytes of the frames handed out leave the stream only
// then, all at once when no whole frame is left in the batch. So a host that waits on the
// descriptor (GetSocket) between reads is woken while a frame it has not read is waiting, never
// waits for one that has already arrived, and finds the descriptor quiet once it has read them
// all. The first bytes of a header whose rest has not come wake it too: its next read takes them
// and gets the frame, or -5 when its limit passes first. Reading the descriptor itself between
// reads is not supported: it would take bytes the reader has seen.
//
// Failures of the socket layer never leave the channel as they are: reads, the timed Write and
// Open throw a plain KivExceptions instead; the untimed Write returns 0.
//
// Listener: RegisterReadCallback runs a loop, in a thread of its own or in the calling thread,
// that polls for data every registered period, reads each frame, hands it to the callback, and
// ends when the callback answers false, when Close is called (within one poll period, without a
// further callback), when no callback is registered, or after more than 20 s without a frame.
// A tickle packet counts as a sign of life (the idle time starts again, no callback). The idle
// time of a listener that has delivered nothing counts from the start of listening. The listener
// reads through a duplicate of the channel's descriptor that it alone closes, so Close may
// release the channel's descriptor at once: the listener never touches a descriptor number Close
// has given back. It hands out the frames of a batch one after another, checking between them
// whether it was told to stop; when it ends it has consumed exactly the frames it handed out, so
// a Read afterwards gets the next one. The fields shared with the listener are atomics.
//
// Lifetime: the object must outlive its listener (destroy it only when GetListenerThreadID is
// null and no in-thread listener runs). The exported interface never destroys a channel.
class KIV_EXPORT KivHBN3TCPSocket : public KivTCPClientSocket {
public:
  // A channel to the device `ip` (dotted decimal), TCP port `usbEndPoint`, interface
  // `endPointInterface`. The descriptor is made at once (throws KivSocketException UNKNOWN_ERROR
  // when it cannot be); nothing is connected. Poll period 3 s, no callback.
  KivHBN3TCPSocket(std::string ip, int usbEndPoint, KivEndPointInterface endPointInterface);
  // Stops the object being a handle and closes the descriptor if still open. Does not stop or
  // wait for a listener (see Lifetime).
  ~KivHBN3TCPSocket();

  // Connects (blocking, no limit of the library's own), sets TCP_NODELAY, sends the open request
  // of the interface (any value other than HID, print and media sends the scan request) and waits
  // up to 60 s for the nine-byte answer. Returns 9 when the answer is "HBN3" with length 0 (byte
  // 4 is not examined), -1 for any other answer, silence, or a device that closes first; the
  // connection then stays open for the caller to close. After Close it makes a new descriptor
  // first. Throws a plain KivExceptions when a socket operation fails (connect refused among
  // them).
  int Open();
  // Replaces the device's address, port and interface, then Open().
  int Open(std::string ip, int usbEndPoint, KivEndPointInterface endPointInterface);

  // Sends the `length` bytes of `msg` as given (no frame header added). Returns `length`, or 0
  // when the device stopped taking data or any failure occurred (nothing is thrown).
  int Write(unsigned char *msg, int length);
  // As Write, waiting at most `timeout` for writability before each send: `length`, 0, or -5
  // when a wait ran out. Throws a plain KivExceptions when a socket operation fails.
  int Write(unsigned char *buffer, int length, KivTimeVal timeout);

  // Reads one data frame and stores its payload in `buffContainer` (replacing its content).
  // `timeout` limits each wait for frame-header bytes (null: no limit). `maxTicklePackets` above
  // 0: after that many tickle packets in a row with no data frame, returns -5 as if a limit had
  // passed; 0 or less skips any number. Returns the payload length; 0 when the device closed
  // (the container is emptied when it closed inside a payload, unchanged otherwise); -2 for a
  // frame header without "HBN3" or with a negative length or one above 64 MiB (nothing allocated,
  // container unchanged); -5 when a wait ran out (container unchanged). Throws a plain
  // KivExceptions when a socket operation fails or the payload cannot be stored.
  int Read(KivNetBuffer &buffContainer, KivTimeVal *timeout, int maxTicklePackets);
  // The same with a limit.
  int Read(KivNetBuffer &buffContainer, KivTimeVal timeout, int maxTicklePackets);
  // The same without a limit.
  int Read(KivNetBuffer &buffContainer, int maxTicklePackets);

  // Reads one data frame as Read does, with its waits, tickle limit and results, but puts the
  // payload straight into `buffer` (room for `capacity` bytes). `buffer` is written only with a
  // whole frame that fits; with `buffer` null the frame is consumed and dropped, and its length
  // returned. A frame longer than `capacity` is consumed and lost without anything being
  // allocated for it: throws a plain KivExceptions, and the next read gets the following frame.
  // Also throws a plain KivExceptions when a socket operation fails or `timeout` is not a valid
  // limit (negative, or microseconds outside 0 to 999999).
  int ReadInto(unsigned char *buffer, int capacity, const KivTimeVal *timeout,
               int maxTicklePackets);

  // Marks the channel closed and tells a listener to stop, shuts the connection down (which wakes
  // a listener blocked on it), then closes the descriptor and forgets it, and releases the
  // reader's copy of waiting frames (a running listener releases it when it ends). Returns the
  // platform's close result: 0, or -1 when the channel held no descriptor. A listener can no
  // longer be started on the channel afterwards (Open does not change that).
  int Close();

  // The descriptor, unchecked: -1 after Close (never throws, unlike the base's checked form).
  int GetSocket() const { return mSocket; }

  KivEndPointInterface GetEndPointInterface() const { return mEndPointInterface; }

  // ---- Listener ----

  // Registers `callback` with `anyObject` as its parameter and a poll period of `numSecs` s and
  // `numUSecs` us (normalised; a negative total counts as 0). With `runInSeparateThread`: starts a
  // listener thread (detached when `isDetached`, joinable otherwise) and returns at once; nothing
  // is started when a listener already runs (it takes up the new callback, parameter and period),
  // when the channel is closed, when `callback` is null, or on a media-interface channel (which
  // is served only by a listener in the registering thread). Thread creation failures are not
  // reported. Without it: runs the listener in the calling thread and returns when it has ended
  // (at once when another listener runs). Returns 0. A null callback stops a running listener at
  // its next pass.
  int RegisterReadCallback(KivSocketReadCallback callback, void *anyObject, int numSecs,
                           int numUSecs, bool runInSeparateThread, bool isDetached);

  // Starts the listener thread as registered (joinable or detached). Does nothing when a listener
  // already runs.
  void LaunchInSeparateThread();

  // The thread entry: runs the listener of the channel `param` (null: returns at once); a media
  // channel ends at once without a callback. Returns null.
  static void *ReadListenerStatic(void *param);

  // Runs the listener loop in the calling thread until it ends; returns at once when another
  // listener runs.
  void ReadListener();

  // The listener thread's identifier while a listener thread runs, otherwise null. The pointer
  // stays valid as long as the channel lives; a host may join a joinable listener through it.
  // A joinable listener that may end quickly is best taken right after registering (it counts as
  // running from then on), or with pthread_self() in the callback.
  pthread_t *GetListenerThreadID();

protected:
  // Takes `descriptor`, an already connected stream, as the channel's connection (closing the
  // descriptor made before); the handshake is not made. For test peers and fuzzing.
  void AdoptConnectedSocket(int descriptor);

  std::atomic<KivSocketReadCallback> mCallback; // null until registered
  std::atomic<void *> mCallbackParameter;
  KivEndPointInterface mEndPointInterface;
  std::atomic<long long> mTimeout; // the listener's poll period in microseconds (3 s at first)
  std::atomic<bool> mIsConnected;  // true from construction until Close
  bool mRunInSeparateThread;
  bool mIsDetached;
  std::atomic<bool> mStillListen; // cleared by Close and by a callback answering false
  std::atomic<bool> mListenerCurrentlyRunning;
  pthread_t mListenerThread;
  KivNetBuffer mStorageBuffer; // emptied by every open; otherwise unused
  KivTimeVal mOpenAnswerLimit; // the wait for the open answer, 60 s

private:
  // Reads the next data frame into `destination` for the Read forms: the reader slot taken, the
  // limit checked, tickle packets skipped up to `maxTicklePackets` (reached: TIMED_OUT).
  kiv::KivFrameOutcome ReadFrame(const KivTimeVal *timeout, int maxTicklePackets,
                                 kiv::KivFrameDestination &destination);
  // The listener loop on its own `descriptor`, which it closes when it ends.
  void RunListener(int descriptor);
  // The registered poll period.
  KivTimeVal PollPeriod() const;
  // Releases the reader's copy unless a reader holds the slot.
  void ReleaseReaderIfIdle();

  class ReaderSlot;

  std::atomic<bool> mReading;          // the reader slot: a read or a listener is reading
  std::atomic<bool> mListenerThreaded; // the running listener is a thread of its own
  std::atomic<int> mListenerSocket;    // the descriptor handed to a listener thread at launch
  kiv::KivHBN3FrameReader mReader;     // used only by the holder of the reader slot
};

#endif // KIV_SOCKETS_KIVHBN3TCPSOCKET_H
