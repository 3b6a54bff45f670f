// Runs kivnet in the test's own process, as the tool tests do: the words of a command line, with
// standard output and standard error caught in temporary files.
#ifndef KIV_TESTS_TOOLS_INPROCESSKIVNET_H
#define KIV_TESTS_TOOLS_INPROCESSKIVNET_H

#include <chrono>
#include <cstdio>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tools/kivnet/Run.h"

namespace kivtest {

// What one run gave: the exit status, the two outputs and the time it took.
struct Ran {
  int status = -1;
  std::string out, err;
  double seconds = 0;
};

// Everything written to `file`, which is closed.
inline std::string ReadAll(std::FILE *file) {
  std::rewind(file);
  std::string text;
  char chunk[4096];
  for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;) {
    text.append(chunk, n);
  }
  std::fclose(file);
  return text;
}

// Runs kivnet with `words` (after the program name). Standard error goes to `err` when given (the
// caller reads it) and is caught in `Ran::err` otherwise.
inline Ran RunKivnet(const std::vector<std::string> &words, std::FILE *err = nullptr) {
  std::FILE *out = std::tmpfile();
  std::FILE *errFile = err != nullptr ? err : std::tmpfile();
  Ran ran;
  const auto start = std::chrono::steady_clock::now();
  ran.status = kivnet::RunKivnet(words, out, errFile);
  ran.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ran.out = ReadAll(out);
  if (err == nullptr) {
    ran.err = ReadAll(errFile);
  }
  return ran;
}

// The same with the words of `args`, split at spaces.
inline Ran RunWords(const std::string &args, std::FILE *err = nullptr) {
  std::istringstream in(args);
  return RunKivnet({std::istream_iterator<std::string>(in), {}}, err);
}

} // namespace kivtest

#endif // KIV_TESTS_TOOLS_INPROCESSKIVNET_H
