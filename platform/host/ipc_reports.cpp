/* Refusals and drops of the IPC transport, logged at most once per
 * interval and kind with a count of what happened since. */
#include <inttypes.h>
#include <syslog.h>

#include "ipc_transport.hpp"
#include "plat_syslog.h"

namespace plat::ipc
{

namespace
{

Clock::time_point steady_now()
{
    return Clock::now();
}

struct DropText {
    int severity;
    const char *what; /* "<what>: N since the last report" */
};

constexpr std::array<DropText, static_cast<size_t>(Drop::count)> kDropTexts = {{
    {LOG_ERR, "IPC connections refused for lack of memory"},
    {LOG_ERR, "IPC accepts failed"},
    {LOG_WARNING, "IPC connection limit reached, new clients waited"},
    {LOG_WARNING, "IPC connections closed for a payload length above "
                  "65536"},
    {LOG_ERR, "IPC connections closed for lack of payload memory"},
    {LOG_WARNING, "IPC connections closed for replies left unread"},
    {LOG_WARNING, "IPC connections closed for replies left unread by "
                  "all clients together"},
    {LOG_WARNING, "IPC connections closed for holding a partial "
                  "message"},
}};

} // namespace

constinit Limits limits;

Clock::time_point now()
{
    return (limits.now != nullptr ? limits.now : steady_now)();
}

bool DropReports::admit(Drop kind)
{
    Kind &k = kinds_[static_cast<size_t>(kind)];
    Clock::time_point t = now();

    if (t >= k.quiet_until && k.unreported == 0) {
        k.quiet_until = t + limits.report_interval;
        return true;
    }
    k.unreported++;
    return false;
}

void DropReports::flush()
{
    Clock::time_point t = now();

    for (size_t i = 0; i < kinds_.size(); i++) {
        Kind &k = kinds_[i];

        if (k.unreported == 0 || t < k.quiet_until)
            continue;
        plat_syslog(kDropTexts[i].severity, "orvel-ipc", 0,
                    "%s: %" PRIu64 " since the last report", kDropTexts[i].what,
                    k.unreported);
        k.unreported = 0;
        k.quiet_until = t + limits.report_interval;
    }
}

Clock::time_point DropReports::next_flush() const
{
    Clock::time_point next = Clock::time_point::max();

    for (const Kind &k : kinds_)
        if (k.unreported > 0 && k.quiet_until < next)
            next = k.quiet_until;
    return next;
}

} // namespace plat::ipc
