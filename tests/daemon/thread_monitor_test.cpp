/* Part 1.3: registering threads and finding the ones that ended. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "daemon_support.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"
#include "thread_monitor.hpp"

static int fail_calloc;

void *__real_calloc(size_t count, size_t size);

void *__wrap_calloc(size_t count, size_t size)
{
    if (fail_calloc)
        return NULL;
    return __real_calloc(count, size);
}

static int setup(void **state)
{
    (void)state;
    plm_thread_monitor_init();
    log_expect_start(&plm_log_file);
    return 0;
}

static int teardown(void **state)
{
    (void)state;
    fail_calloc = 0;
    free_monitor_entries();
    log_expect_stop();
    return 0;
}

static void *return_at_once(void *arg)
{
    return arg;
}

static pthread_mutex_t hold = PTHREAD_MUTEX_INITIALIZER;

static void *wait_for_release(void *arg)
{
    pthread_mutex_lock(&hold);
    pthread_mutex_unlock(&hold);
    return arg;
}

static void test_enqueue_logs_the_name(void **state)
{
    static pthread_t thread;

    (void)state;
    assert_int_equal(plm_thread_monitor_enqueue(&thread, "pellin sys poll"),
                     0);
    expect_log(LOG_DEBUG, "Thread Monitoring: pellin sys poll");
    expect_no_more_logs();
    assert_ptr_equal(plm_thread_monitor_list.next->thread, &thread);
    assert_string_equal(plm_thread_monitor_list.next->name,
                        "pellin sys poll");
}

static void test_null_thread_is_refused(void **state)
{
    (void)state;
    assert_int_equal(plm_thread_monitor_enqueue(NULL, "x"), -1);
    expect_log(LOG_ERR, "Thread Monitor Enqueue: Null pointer");
    expect_no_more_logs();
    assert_ptr_equal(plm_thread_monitor_list.next, &plm_thread_monitor_list);
}

static void test_allocation_failure_says_null_pointer(void **state)
{
    static pthread_t thread;

    (void)state;
    fail_calloc = 1;
    assert_int_equal(plm_thread_monitor_enqueue(&thread, "x"), -1);
    fail_calloc = 0;
    expect_log(LOG_ERR, "Null pointer");
    expect_no_more_logs();
}

static void test_null_name_is_unknown(void **state)
{
    static pthread_t thread;

    (void)state;
    assert_int_equal(plm_thread_monitor_enqueue(&thread, NULL), 0);
    expect_log(LOG_DEBUG, "Thread Monitoring: unknown");
    assert_string_equal(plm_thread_monitor_list.next->name, "unknown");
}

static void test_long_name_is_cut_to_63(void **state)
{
    static pthread_t thread;
    char name[80], expected[64];

    (void)state;
    memset(name, 'a', sizeof(name) - 1);
    name[sizeof(name) - 1] = '\0';
    memset(expected, 'a', 63);
    expected[63] = '\0';
    assert_int_equal(plm_thread_monitor_enqueue(&thread, name), 0);
    assert_string_equal(plm_thread_monitor_list.next->name, expected);
    name[64] = '\0'; /* exactly 64 characters */
    assert_int_equal(plm_thread_monitor_enqueue(&thread, name), 0);
    assert_string_equal(plm_thread_monitor_list.next->name, expected);
    name[63] = '\0'; /* 63 fit whole */
    assert_int_equal(plm_thread_monitor_enqueue(&thread, name), 0);
    assert_string_equal(plm_thread_monitor_list.next->name, expected);
}

static void test_newest_entry_comes_first(void **state)
{
    static pthread_t first, second;

    (void)state;
    plm_thread_monitor_enqueue(&first, "pellin sys poll");
    plm_thread_monitor_enqueue(&second, "pellin IPC server");
    assert_string_equal(plm_thread_monitor_list.next->name,
                        "pellin IPC server");
    assert_string_equal(plm_thread_monitor_list.next->next->name,
                        "pellin sys poll");
    assert_ptr_equal(plm_thread_monitor_list.next->next->next,
                     &plm_thread_monitor_list);
    assert_ptr_equal(plm_thread_monitor_list.prev->thread, &first);
}

static void test_thread_that_returned_is_found_once(void **state)
{
    static pthread_t alive, ended;

    (void)state;
    pthread_mutex_lock(&hold);
    assert_int_equal(pthread_create(&alive, NULL, wait_for_release, NULL), 0);
    assert_int_equal(pthread_create(&ended, NULL, return_at_once, NULL), 0);
    plm_thread_monitor_enqueue(&ended, "pellin sys poll");
    plm_thread_monitor_enqueue(&alive, "pellin IPC server");
    /* The ended thread is found (and joined) even behind a live one. */
    for (int i = 0; i < 1000; i++) {
        plm_thread_monitor_entry *found = plm_thread_monitor_find_ended();

        if (found != NULL) {
            assert_string_equal(found->name, "pellin sys poll");
            break;
        }
        usleep(1000);
        assert_true(i < 999);
    }
    pthread_mutex_unlock(&hold);
    pthread_join(alive, NULL);
}

static void test_live_threads_are_not_found(void **state)
{
    static pthread_t alive;

    (void)state;
    pthread_mutex_lock(&hold);
    assert_int_equal(pthread_create(&alive, NULL, wait_for_release, NULL), 0);
    plm_thread_monitor_enqueue(&alive, "pellin IPC server");
    assert_null(plm_thread_monitor_find_ended());
    pthread_mutex_unlock(&hold);
    pthread_join(alive, NULL);
}

int main(void)
{
#define T(name) cmocka_unit_test_setup_teardown(name, setup, teardown)
    const struct CMUnitTest tests[] = {
        T(test_enqueue_logs_the_name),
        T(test_null_thread_is_refused),
        T(test_allocation_failure_says_null_pointer),
        T(test_null_name_is_unknown),
        T(test_long_name_is_cut_to_63),
        T(test_newest_entry_comes_first),
        T(test_thread_that_returned_is_found_once),
        T(test_live_threads_are_not_found),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
