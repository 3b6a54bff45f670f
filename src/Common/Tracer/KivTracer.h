// Trace lines for hosts: a formatted line tagged with a function name and a source line, and a
// one-line hex dump. Both print to standard output; nothing inside the library calls them.
#ifndef KIV_COMMON_TRACER_KIVTRACER_H
#define KIV_COMMON_TRACER_KIVTRACER_H

#include "Common/KivTypes.h"

// Trace kinds of TraceLogBody.
enum KivTraceKind : int {
  kTraceBody = 0,       // "<func> in line:<line> ## <text>"
  kTraceEntry = 1,      // same shape as kTraceBody
  kTraceParameters = 2, // "<func> in line:<line> ## Parameters : <text>"
  kTraceReturns = 3,    // "<func> in line:<line> ## Returns <text>"
};

// Formats `format` with its arguments and prints one line of the shape `iType` selects. Any other
// kind prints nothing (the text is still formatted and released).
KIV_EXTERN_C void TraceLogBody(int iType, const char *func, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// Prints every byte as "0x%02x " on one line and a newline; prints nothing for a null `message`
// or a `length` outside 1 to 511.
KIV_EXTERN_C void TraceLogStream(const unsigned char *message, int length);

#endif // KIV_COMMON_TRACER_KIVTRACER_H
