// The socket base of the library and the message hex dumps.
#ifndef KIV_SOCKETS_KIVSOCKET_H
#define KIV_SOCKETS_KIVSOCKET_H

#include "Common/KivTypes.h"

// Prints "DUMP LENGTH:<n>", then every byte as "0x%02x " with a newline after every 20th byte,
// then one more newline. Standard output. A length of 0 or less prints the header and a newline.
KIV_EXPORT void DumpHexMessage2(unsigned char *message, int length);

// The same dump in red: the header starts with ESC "[0;31m" and the dump ends with ESC "[0m" and
// a newline instead of the extra newline.
KIV_EXPORT void DumpHexMessage3(unsigned char *message, int length);

#endif // KIV_SOCKETS_KIVSOCKET_H
