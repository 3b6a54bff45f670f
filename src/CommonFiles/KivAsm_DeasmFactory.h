// Chooses the message builder or parser for a protocol's header type.
#ifndef KIV_COMMONFILES_KIVASM_DEASMFACTORY_H
#define KIV_COMMONFILES_KIVASM_DEASMFACTORY_H

#include "Asm_Deasm/KivAssembler.h"
#include "Asm_Deasm/KivDisassembler.h"
#include "Common/KivTypes.h"
#include "CommonFiles/KivNetBuffer.h"

// The header type only selects the class: 0x48424E33 ("HBN3") and 0x48435031 ("HCP1") give the
// same builder and the same parser, and every other value gives none. No objects.
class KIV_EXPORT KivAsm_DeasmFactory {
public:
  KivAsm_DeasmFactory() = delete;

  // True for the header types the factory makes a builder and a parser for, "HBN3" and "HCP1".
  // For callers that hold the builder or parser themselves instead of taking one from the heap.
  static bool IsKnownHeaderType(UInt32 iHeaderType);

  // A new KivHBN3Assembler for "HBN3" or "HCP1"; null for any other header type.
  // Ownership: the caller owns the builder and deletes it through KivAssembler.
  static KivAssembler *CreateAssembler(UInt32 iHeaderType);

  // A new KivHBN3Disassembler holding its own copy of `msgObject`'s message, for "HBN3" or "HCP1";
  // null for any other header type, and `msgObject` is then not looked at.
  // Exceptions of SetMessage (BUFFER_NULL of 0x70400 for a null container, COPY_ERROR, the
  // container's own) pass to the caller; no parser is returned or left behind then.
  // Ownership: the caller owns the parser and deletes it through KivDisassembler.
  static KivDisassembler *CreateDisassembler(UInt32 iHeaderType, KivNetBuffer *msgObject);
};

#endif // KIV_COMMONFILES_KIVASM_DEASMFACTORY_H
