// The thread registry for host subclasses.
#include "Threads/KivMultithreaded.h"

#include <cerrno>

KivMultithreaded::KivMultithreaded() : mThreadIDGenerator(0) {}

KivMultithreaded::~KivMultithreaded() {
  // A joinable thread nobody joins would keep its resources for the life of the process.
  for (auto &entry : mThreadMap) {
    pthread_detach(entry.second);
  }
}

int KivMultithreaded::RunThread() {
  std::lock_guard<std::mutex> lock(mMapLock);
  pthread_t thread;
  if (pthread_create(&thread, nullptr, &KivMultithreaded::ThreadFunction, this) != 0) {
    return -1;
  }
  const KivThreadID number = ++mThreadIDGenerator;
  mThreadMap[number] = thread;
  return number;
}

void *KivMultithreaded::ThreadFunction(void *param) {
  static_cast<KivMultithreaded *>(param)->Run();
  return nullptr;
}

bool KivMultithreaded::Find(int threadID, pthread_t &thread) const {
  std::lock_guard<std::mutex> lock(mMapLock);
  const auto found = mThreadMap.find(threadID);
  if (found == mThreadMap.end()) {
    return false;
  }
  thread = found->second;
  return true;
}

int KivMultithreaded::JoinThread(int threadID, void **result) {
  pthread_t thread;
  if (!Find(threadID, thread)) {
    return ESRCH;
  }
  // Joined outside the lock: the thread being joined may itself start or join threads.
  const int status = pthread_join(thread, result);
  if (status == 0) {
    std::lock_guard<std::mutex> lock(mMapLock);
    mThreadMap.erase(threadID);
  }
  return status;
}

int KivMultithreaded::CancelThread(int threadID) {
  pthread_t thread;
  return Find(threadID, thread) ? pthread_cancel(thread) : ESRCH;
}

int KivMultithreaded::DetachThread(int threadID) {
  std::lock_guard<std::mutex> lock(mMapLock);
  const auto found = mThreadMap.find(threadID);
  if (found == mThreadMap.end()) {
    return ESRCH;
  }
  const int status = pthread_detach(found->second);
  if (status == 0) {
    mThreadMap.erase(found);
  }
  return status;
}

int KivMultithreaded::SetCancelType(int type, int *oldValue) {
  int previous = 0;
  const int status = pthread_setcanceltype(type, &previous);
  if (status == 0 && oldValue != nullptr) {
    *oldValue = previous;
  }
  return status;
}

int KivMultithreaded::SetCancelState(int state, int *oldValue) {
  int previous = 0;
  const int status = pthread_setcancelstate(state, &previous);
  if (status == 0 && oldValue != nullptr) {
    *oldValue = previous;
  }
  return status;
}

int KivMultithreaded::TestCancel() {
  pthread_testcancel();
  return 0;
}

int KivMultithreaded::GetThreadCount() const {
  std::lock_guard<std::mutex> lock(mMapLock);
  return static_cast<int>(mThreadMap.size());
}
