// Abstract base of the HBN3 payloads.
#include "CommonFiles/KivPayload.h"

// Defined out of line so the class's type information lives in the library.
KivPayload::~KivPayload() = default;
