/* How lhctl and lhsim end a run early: a Failure carrying the exit code,
 * caught at main, and the printf-style text it is made from. */
#ifndef TOOL_FAILURE_HPP
#define TOOL_FAILURE_HPP

#include <stdarg.h>
#include <stdio.h>

#include <stdexcept>
#include <string>

namespace tools {

template <typename Exit> class Failure : public std::runtime_error {
public:
    Failure(Exit exit, const std::string &text)
        : std::runtime_error(text), exit_(exit)
    {
    }
    Exit exit() const { return exit_; }

private:
    Exit exit_;
};

inline std::string format(const char *fmt, ...)
    __attribute__((format(printf, 1, 2)));

inline std::string format(const char *fmt, ...)
{
    va_list args, again;

    va_start(args, fmt);
    va_copy(again, args);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, fmt, args)),
                     '\0');
    vsnprintf(text.data(), text.size() + 1, fmt, again);
    va_end(again);
    va_end(args);
    return text;
}

} // namespace tools

#endif
