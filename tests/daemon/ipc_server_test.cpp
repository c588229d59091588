/* Part 1.5: the IPC server thread against a fake transport: a receive
 * error never ends it, and an endpoint that cannot be opened does. */
#include <pthread.h>

#include "cmocka_all.h"
#include "fake_ipc.hpp"
#include "ipc_server.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"

static int setup(void **state)
{
    (void)state;
    fake_ipc_reset();
    log_expect_start(&plm_log_file);
    return 0;
}

static int teardown(void **state)
{
    (void)state;
    log_expect_stop();
    return 0;
}

static void run_server_thread(void)
{
    pthread_t thread;

    assert_int_equal(pthread_create(&thread, NULL, plm_ipc_server_thread,
                                    NULL),
                     0);
    assert_int_equal(pthread_join(thread, NULL), 0);
}

static void test_receive_errors_do_not_end_the_thread(void **state)
{
    (void)state;
    fake_ipc.recv_results[0] = 5;
    fake_ipc.recv_results[1] = 110;
    fake_ipc.recv_results[2] = 0;
    fake_ipc.recv_scripted = 3;
    run_server_thread();
    /* Two errors, one message, then the fourth receive ended the test. */
    assert_int_equal(fake_ipc.recv_calls, 4);
    expect_log(LOG_ERR, "Error during ipc_recv: 5");
    expect_log(LOG_ERR, "Error during ipc_recv: 110");
    expect_no_more_logs();
}

static void test_endpoint_failure_ends_the_thread(void **state)
{
    (void)state;
    fake_ipc.add_endpoint_result = -98;
    run_server_thread();
    assert_int_equal(fake_ipc.recv_calls, 0);
    expect_log(LOG_ERR, "Error adding IPC_SOCK_SERVER endpoint");
    expect_log(LOG_CRIT, "Error initializing IPC for Pellin Manager\n");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_setup_teardown(name, setup, teardown)
    const struct CMUnitTest tests[] = {
        T(test_receive_errors_do_not_end_the_thread),
        T(test_endpoint_failure_ends_the_thread),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
