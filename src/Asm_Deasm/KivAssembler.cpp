// The abstract message builder.
#include "Asm_Deasm/KivAssembler.h"

// Defined out of line so the class's type information lives in the library.
KivAssembler::~KivAssembler() = default;
