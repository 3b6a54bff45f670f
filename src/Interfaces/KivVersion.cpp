// The exported version query: the version this library was built as.
#include "Interfaces/KivNetworkComm.h"

const char *GetKivNetworkCommVersion() { return KIVNETWORKCOMM_VERSION; }
