/* A file descriptor closed with its owner. Closing keeps errno, so a
 * caller can still report the failure that made it give up. */
#ifndef PLAT_UNIQUE_FD_HPP
#define PLAT_UNIQUE_FD_HPP

#include <errno.h>
#include <unistd.h>

#include <utility>

namespace plat {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0 && fd_ != fd) {
            const int saved = errno;

            close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

} // namespace plat

#endif
