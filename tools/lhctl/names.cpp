/* The words lhctl reads (numbers, module, loopback and priority names) and
 * the names it prints for what the daemon reports. */
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "lh_tables.hpp"
#include "lhctl.hpp"

namespace lhctl {

/* The longest timeout lhctl waits for one answer, in seconds. */
constexpr double kMaxTimeoutS = 3600.0;

static bool starts_with_sign_or_blank(const char *digits)
{
    return *digits == '\0' || strchr("+- \t", *digits) != nullptr;
}

/* Decimal, or hexadecimal after "0x"; no sign, no blanks, 32 bits. */
uint32_t parse_u32(const char *what, const std::string &text)
{
    bool hex = text.starts_with("0x") || text.starts_with("0X");
    const char *digits = text.c_str() + (hex ? 2 : 0);
    char *end;

    if (starts_with_sign_or_blank(digits))
        usage_error(format("bad %s \"%s\"", what, text.c_str()));
    errno = 0;
    unsigned long long value = strtoull(digits, &end, hex ? 16 : 10);
    if (errno != 0 || *end != '\0' || value > UINT32_MAX)
        usage_error(format("bad %s \"%s\"", what, text.c_str()));
    return static_cast<uint32_t>(value);
}

uint32_t parse_name(const char *what, const std::string &text,
                    std::span<const char *const> names)
{
    for (size_t i = 0; i < names.size(); i++)
        if (text == names[i])
            return static_cast<uint32_t>(i);
    usage_error(format("unknown %s \"%s\"", what, text.c_str()));
}

/* A module name, or an id of one. */
uint32_t parse_module(const std::string &text)
{
    if (text[0] >= '0' && text[0] <= '9') {
        uint32_t id = parse_u32("module id", text);

        if (id >= lhtables::kModuleCount)
            usage_error(format("unknown module \"%s\"", text.c_str()));
        return id;
    }
    if (auto id = lh::module_by_name(text))
        return *id;
    usage_error(format("unknown module \"%s\"", text.c_str()));
}

/* Seconds, fractions allowed, above 0, at least min and at most max. */
double parse_seconds(const char *what, const std::string &text, double min,
                     double max)
{
    char *end;

    if (starts_with_sign_or_blank(text.c_str()))
        usage_error(format("bad %s \"%s\"", what, text.c_str()));
    errno = 0;
    double seconds = strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(seconds) ||
        seconds <= 0 || seconds < min || seconds > max)
        usage_error(format("bad %s \"%s\"", what, text.c_str()));
    return seconds;
}

/* Rounded up to a millisecond, so 0.0001 s still waits. */
int parse_timeout_ms(const std::string &text)
{
    return static_cast<int>(
        std::ceil(parse_seconds("timeout", text, 0, kMaxTimeoutS) * 1000.0));
}

std::string module_name(uint32_t id)
{
    if (id < lhtables::kModuleCount)
        return lhtables::module_name(id);
    return std::to_string(id);
}

/* Bit n of a mask is loopback type n, a bit without a type "type-n"; an
 * empty mask is "disable-all". */
std::vector<std::string> loopback_types(uint32_t mask)
{
    std::vector<std::string> types;

    for (uint32_t bit = 0; bit < 32; bit++) {
        if ((mask & (1u << bit)) == 0)
            continue;
        types.push_back(bit < std::size(kLoopbackNames)
                            ? kLoopbackNames[bit]
                            : format("type-%u", bit));
    }
    if (types.empty())
        types.push_back(kLoopbackNames[0]);
    return types;
}

/* A value outside the names prints as its number. */
std::string priority_name(uint32_t priority)
{
    if (priority < std::size(kPriorityNames))
        return kPriorityNames[priority];
    return std::to_string(priority);
}

} // namespace lhctl
