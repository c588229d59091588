/* Resources closed or freed with their owner: a file descriptor, and heap
 * bytes from malloc (what crosses a C interface as a payload). */
#ifndef PELLIN_OWNED_HPP
#define PELLIN_OWNED_HPP

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <utility>

namespace pellin {

/* Closing keeps errno, so a caller can still report the failure that made
 * it give up. */
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

struct FreeDeleter {
    void operator()(void *p) const noexcept { free(p); }
};

template <class T> using Malloced = std::unique_ptr<T, FreeDeleter>;
using MallocBytes = Malloced<uint8_t[]>;

} // namespace pellin

#endif
