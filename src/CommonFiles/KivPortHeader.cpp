// Abstract base of every wire header.
#include "CommonFiles/KivPortHeader.h"

// Defined out of line so the class's type information lives in the library.
KivPortHeader::~KivPortHeader() = default;
