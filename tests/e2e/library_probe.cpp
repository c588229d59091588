/* Brings the library up on whatever board it sees, enables every traffic
 * pipe, records each fatal-error report in callbacks.txt beside the logs,
 * and shuts the library down on SIGTERM. */
#include <signal.h>
#include <stdio.h>

#include "lh_fpga.h"

#define CALLBACKS_PATH "/opt/orvel/platform/logs/callbacks.txt"

static FILE *callbacks;

static void record_fatal_error(lh_fatal_error_t report)
{
    fprintf(callbacks, "module %u pipe %u: %s\n", report.module_id,
            report.pipe, report.error_text);
    fflush(callbacks);
}

int main(int argc, char **argv)
{
    sigset_t stop;
    int signal_number;

    /* Blocked before the poll thread exists, so only sigwait takes it. */
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);
    callbacks = fopen(CALLBACKS_PATH, "a");
    if (callbacks == NULL)
        return 2;
    if (lh_fpga_init(argc > 1 ? argv[1] : NULL) != 0)
        return 1;
    lh_register_fatal_error_cb(record_fatal_error);
    for (uint32_t pipe = 0; pipe < lh_get_traffic_pipe_count(); pipe++)
        lh_set_traffic_pipe_state(pipe, 1);
    sigwait(&stop, &signal_number);
    lh_fpga_shutdown();
    fclose(callbacks);
    return 0;
}
