// A message container made through the exported CreateBuffer and released when a test ends.
#ifndef KIV_TESTS_SUPPORT_SCOPEDCONTAINER_H
#define KIV_TESTS_SUPPORT_SCOPEDCONTAINER_H

#include "Interfaces/KivNetworkComm.h"
#include "support/TestSupport.h"

namespace kivtest {

class ScopedContainer {
public:
  ScopedContainer() : mHandle(CreateBuffer()) {}
  // The library never releases a container; the test that made it does.
  ~ScopedContainer() {
    KivNetBuffer *buffer = VerifyBufferHandle(mHandle);
    buffer->ResetBuffer();
    delete buffer;
  }
  ScopedContainer(const ScopedContainer &) = delete;
  ScopedContainer &operator=(const ScopedContainer &) = delete;

  HANDLE handle() const { return mHandle; }

  // The stored message.
  Bytes bytes() const {
    const KivNetBuffer *buffer = VerifyBufferHandle(mHandle);
    return Bytes(buffer->GetBufferRef(), buffer->GetBufferRef() + buffer->GetBufferLength());
  }

  // Stores `message` as a received message would be stored; an empty one empties the container.
  void Fill(const Bytes &message) {
    static const unsigned char kNothing = 0;
    VerifyBufferHandle(mHandle)->SetBuffer(message.empty() ? &kNothing : message.data(),
                                           static_cast<int>(message.size()));
  }

private:
  HANDLE mHandle;
};

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_SCOPEDCONTAINER_H
