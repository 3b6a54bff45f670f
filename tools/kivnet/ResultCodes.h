// Readable text for the library's 32-bit result codes, for kivnet's error lines.
#ifndef KIV_TOOLS_KIVNET_RESULTCODES_H
#define KIV_TOOLS_KIVNET_RESULTCODES_H

#include <string>

#include "Common/KivTypes.h"

namespace kivnet {

// The code as eight uppercase hexadecimal digits after "0x" ("0x0A0000B6").
std::string CodeHex(UInt32 code);

// What a result code means, without the code itself:
//   0x0A09NNKK  "<function>: <kind>", e.g. "SendTo: invalid buffer handle";
//   0x0A01xxxx-0x0A08xxxx  "<class>::<member>: <error>", e.g. "KivHBN3Disassembler::
//               ParseHCPResponse: COPY_ERROR, a copy failed or the message could not be parsed";
//               an unknown member is named by its number ("KivNetBuffer function 0x0E");
//   0x0A0000B1-0x0A0000C3  "socket layer: <error>", e.g. "socket layer: RECVFROM_ERROR, the
//               receive failed or timed out";
//   0  "success"; anything else "not a KivNetworkComm result code".
std::string DescribeCode(UInt32 code);

// The name of the exported function with the number NN (0x05 to 0x35), or "" for a number that
// belongs to no function.
std::string FunctionName(UInt32 number);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_RESULTCODES_H
