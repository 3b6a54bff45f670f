// A descriptor the library opened for its own short use, closed on every path out of its scope.
#ifndef KIV_COMMONFILES_KIVUNIQUEFD_H
#define KIV_COMMONFILES_KIVUNIQUEFD_H

#include <unistd.h>

namespace kiv {

// Owns one descriptor (-1: none) and closes it when it goes or when another takes its place.
class UniqueFd {
public:
  explicit UniqueFd(int fd = -1) : mFd(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(const UniqueFd &) = delete;
  UniqueFd &operator=(const UniqueFd &) = delete;

  // The descriptor, still owned (-1: none).
  int Get() const { return mFd; }

  // Closes the descriptor held and owns `fd` instead.
  void Reset(int fd = -1) {
    if (mFd >= 0) {
      close(mFd);
    }
    mFd = fd;
  }

private:
  int mFd;
};

} // namespace kiv

#endif // KIV_COMMONFILES_KIVUNIQUEFD_H
