/* Brings the library up on whatever board it sees, enables every traffic
 * pipe, records each fatal-error report in callbacks.txt beside the logs,
 * and shuts the library down on SIGTERM. */
#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>

#include "lh_fpga.h"

namespace {

constexpr const char *callbacks_path = "/opt/orvel/platform/logs/callbacks.txt";

FILE *callbacks = nullptr;

void record_fatal_error(lh_fatal_error_t report) noexcept
{
    std::fprintf(callbacks, "module %u pipe %u: %s\n", report.module_id,
                 report.pipe, report.error_text);
    std::fflush(callbacks);
}

} // namespace

/* library_probe [LOG_FILE] */
int main(int argc, char **argv)
{
    sigset_t stop;
    int signal_number = 0;

    /* Blocked before the poll thread exists, so only sigwait takes it. */
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    callbacks = std::fopen(callbacks_path, "a");
    if (callbacks == nullptr)
        return 2;
    if (lh_fpga_init(argc > 1 ? argv[1] : nullptr) != 0)
        return 1;
    lh_register_fatal_error_cb(record_fatal_error);
    for (uint32_t pipe = 0; pipe < lh_get_traffic_pipe_count(); pipe++)
        lh_set_traffic_pipe_state(pipe, 1);
    sigwait(&stop, &signal_number);
    lh_fpga_shutdown();
    std::fclose(callbacks);
    return 0;
}
