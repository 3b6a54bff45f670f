// The abstract message parser.
#include "Asm_Deasm/KivDisassembler.h"

// Defined out of line so the class's type information lives in the library.
KivDisassembler::~KivDisassembler() = default;
