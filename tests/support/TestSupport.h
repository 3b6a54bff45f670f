// Shared helpers of the tests: byte vectors from hex text, standard output capture, descriptor
// counting.
#ifndef KIV_TESTS_SUPPORT_TESTSUPPORT_H
#define KIV_TESTS_SUPPORT_TESTSUPPORT_H

#include <functional>
#include <string>
#include <vector>

namespace kivtest {

typedef std::vector<unsigned char> Bytes;

// Bytes from hex text; spaces, commas and line breaks between pairs are ignored ("48 42 4E 33").
Bytes Hex(const std::string &text);

// Bytes of a text, without a terminator.
Bytes Text(const std::string &text);

// Concatenation.
Bytes Join(std::initializer_list<Bytes> parts);

// Hex text of bytes, upper case, space separated; for readable failure messages.
std::string ToHex(const Bytes &bytes);
std::string ToHex(const unsigned char *data, int length);

// Everything `action` writes to standard output (through C stdio or std::cout).
std::string CaptureStdout(const std::function<void()> &action);

// Number of descriptors open in this process.
int CountOpenDescriptors();

} // namespace kivtest

#endif // KIV_TESTS_SUPPORT_TESTSUPPORT_H
