// A file descriptor that closes itself.
#ifndef RUMA_HOST_BASE_UNIQUE_FD_H
#define RUMA_HOST_BASE_UNIQUE_FD_H

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace ruma {

// Tests false when it holds none.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        UniqueFd taken(std::move(other));
        std::swap(fd_, taken.fd_);
        return *this;
    }
    // Keeps errno: the descriptor often goes on the way out of an error.
    ~UniqueFd() {
        const int saved = errno;
        static_cast<void>(close());
        errno = saved;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }

    // Returns what close() does, 0 without a descriptor.
    int close() {
        const int fd = release();
        return fd < 0 ? 0 : ::close(fd);
    }

  private:
    int fd_ = -1;
};

} // namespace ruma

#endif
