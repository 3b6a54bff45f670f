// A base for host objects that run their own work on POSIX threads, numbered per object.
#ifndef KIV_THREADS_KIVMULTITHREADED_H
#define KIV_THREADS_KIVMULTITHREADED_H

#include <pthread.h>

#include <map>
#include <mutex>

#include "Common/KivTypes.h"

// Names a thread within one KivMultithreaded object.
typedef int KivThreadID;

// A subclass supplies Run(); RunThread() starts a joinable thread that calls it and answers the
// thread's number (1 for the first, then 2, 3, ...). The registry keeps each running thread's
// pthread_t until it is joined or detached.
//
// The subclass must join (or detach and otherwise wait for) its threads before the object is
// destroyed: the threads call Run() on it. Threads still registered at destruction are detached.
class KIV_EXPORT KivMultithreaded {
public:
  KivMultithreaded();
  virtual ~KivMultithreaded();
  KivMultithreaded(const KivMultithreaded &) = delete;
  KivMultithreaded &operator=(const KivMultithreaded &) = delete;

  // The work of every thread this object starts.
  virtual void Run() = 0;

  // Starts a thread running Run() and returns its number, or -1 when the system could not create
  // the thread (nothing is then recorded and no number is used up).
  int RunThread();

  // The thread entry: calls Run() on the KivMultithreaded that `param` points to; returns null.
  static void *ThreadFunction(void *param);

  // pthread_join of thread `threadID`, its result stored in `*result` when `result` is not null.
  // Removes the entry on success. Returns 0 or the POSIX error (ESRCH for an unknown number).
  int JoinThread(int threadID, void **result);
  // pthread_cancel of thread `threadID`; the entry stays until the thread is joined or detached.
  int CancelThread(int threadID);
  // pthread_detach of thread `threadID`; removes the entry on success.
  int DetachThread(int threadID);
  // pthread_setcanceltype / pthread_setcancelstate for the calling thread; the previous value
  // goes to `*oldValue` when it is not null.
  int SetCancelType(int type, int *oldValue);
  int SetCancelState(int state, int *oldValue);
  // pthread_testcancel in the calling thread; returns 0.
  int TestCancel();

  // Number of threads currently registered (started and neither joined nor detached).
  int GetThreadCount() const;

private:
  // Looks a thread up; false for an unknown number.
  bool Find(int threadID, pthread_t &thread) const;

  std::map<KivThreadID, pthread_t> mThreadMap;
  KivThreadID mThreadIDGenerator;
  // Guards the two fields above, so threads may be started and joined from different threads.
  mutable std::mutex mMapLock;
};

#endif // KIV_THREADS_KIVMULTITHREADED_H
