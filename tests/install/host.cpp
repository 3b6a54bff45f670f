// A host program built only against the installed tree.
#include <cstdio>

#include "Interfaces/KivNetworkComm.h"
#include "CommonFiles/KivNetBuffer.h"
#include "Exceptions/KivWrapperException.h"
#include "Exceptions/KivSocketExceptions.h"
#include "Common/Exceptions/KivExceptions.h"
#include "Common/Tracer/KivTracer.h"
#include "Threads/KivMultithreaded.h"
#include "Common/Constants/KivCommunicationConstants.h"

int main() {
  HANDLE buffer = CreateBuffer();
  if (VerifyBufferHandle(buffer) == nullptr || GetHeaderType(buffer) != 0 ||
      GetHeaderType(nullptr) != 0x0A091101u) {
    std::printf("unexpected handle behaviour\n");
    return 1;
  }
  // An exception thrown inside the library is caught here by its exported type.
  try {
    VerifyBufferHandle(buffer)->SetBuffer(nullptr, 1);
  } catch (const KivWrapperException &e) {
    std::printf("host ok 0x%X\n", 0x0A000000u + e.GetErrorCode());
    return 0;
  }
  return 1;
}
