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
//   0x0A01xxxx-0x0A08xxxx  what failed, in terms of the message, and the error's name, e.g.
//               "the status answer could not be read (COPY_ERROR)"; a member the tool does not
//               know is named by its part and number ("message container function 0x0E failed");
//   0x0A0000B1-0x0A0000C3  the socket layer's error, e.g. "the receive failed or timed out
//               (RECVFROM_ERROR)";
//   0  "success"; anything else "not a KivNetworkComm result code".
std::string DescribeCode(UInt32 code);

// The name of the exported function with the number NN (0x05 to 0x35), or "" for a number that
// belongs to no function.
std::string FunctionName(UInt32 number);

} // namespace kivnet

#endif // KIV_TOOLS_KIVNET_RESULTCODES_H
