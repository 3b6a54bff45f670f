// Chooses the message builder or parser for a protocol's header type.
#include "CommonFiles/KivAsm_DeasmFactory.h"

#include <memory>

#include "Asm_Deasm/KivHBN3Assembler.h"
#include "Asm_Deasm/KivHBN3Disassembler.h"
#include "Common/Constants/KivCommunicationConstants.h"

bool KivAsm_DeasmFactory::IsKnownHeaderType(UInt32 iHeaderType) {
  return iHeaderType == kHeaderTypeHBN3 || iHeaderType == kHeaderTypeHCP1;
}

KivAssembler *KivAsm_DeasmFactory::CreateAssembler(UInt32 iHeaderType) {
  return IsKnownHeaderType(iHeaderType) ? new KivHBN3Assembler() : nullptr;
}

KivDisassembler *KivAsm_DeasmFactory::CreateDisassembler(UInt32 iHeaderType,
                                                         KivNetBuffer *msgObject) {
  if (!IsKnownHeaderType(iHeaderType)) {
    return nullptr;
  }
  // Owned until SetMessage has succeeded, so a refused message leaves no parser behind.
  std::unique_ptr<KivDisassembler> parser(new KivHBN3Disassembler());
  parser->SetMessage(msgObject);
  return parser.release();
}
