/* Registering threads and finding the ones that ended. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "daemon_support.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"
#include "thread_monitor.hpp"

namespace {

/* Every calloc returns null while set. */
bool fail_calloc;

} // namespace

extern "C" void *__real_calloc(size_t count, size_t size);

extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    if (fail_calloc)
        return nullptr;
    return __real_calloc(count, size);
}

namespace {

class ThreadMonitorTest : public PrivateTmpTest {
protected:
    void SetUp() override
    {
        PrivateTmpTest::SetUp();
        if (IsSkipped())
            return;
        plm_thread_monitor_init();
        log_expect_start(&plm_log_file);
    }

    void TearDown() override
    {
        fail_calloc = false;
        free_monitor_entries();
        log_expect_stop();
    }

    /* Handles the entries point at; they outlive every entry. */
    pthread_t thread{};
    pthread_t first{};
    pthread_t second{};
};

void *return_at_once(void *arg)
{
    return arg;
}

void *wait_for_release(void *arg)
{
    pthread_mutex_t *hold = static_cast<pthread_mutex_t *>(arg);

    pthread_mutex_lock(hold);
    pthread_mutex_unlock(hold);
    return nullptr;
}

/* A thread that stays alive until this object goes: it waits for a mutex
 * held meanwhile, and is released and joined on destruction. */
class LiveThread {
public:
    LiveThread()
    {
        pthread_mutex_lock(&hold_);
        started_ =
            pthread_create(&handle_, nullptr, wait_for_release, &hold_) == 0;
    }
    LiveThread(const LiveThread &) = delete;
    LiveThread &operator=(const LiveThread &) = delete;
    ~LiveThread()
    {
        pthread_mutex_unlock(&hold_);
        if (started_)
            pthread_join(handle_, nullptr);
        pthread_mutex_destroy(&hold_);
    }

    bool started() const
    {
        return started_;
    }
    pthread_t *handle()
    {
        return &handle_;
    }

private:
    pthread_mutex_t hold_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_t handle_{};
    bool started_ = false;
};

TEST_F(ThreadMonitorTest, EnqueueLogsTheName)
{
    ASSERT_EQ(plm_thread_monitor_enqueue(&thread, "pellin sys poll"), 0);
    expect_log(LOG_DEBUG, "Thread Monitoring: pellin sys poll");
    expect_no_more_logs();
    EXPECT_EQ(plm_thread_monitor_list.next->thread, &thread);
    EXPECT_STREQ(plm_thread_monitor_list.next->name, "pellin sys poll");
}

TEST_F(ThreadMonitorTest, NullThreadIsRefused)
{
    EXPECT_EQ(plm_thread_monitor_enqueue(nullptr, "x"), -1);
    expect_log(LOG_ERR, "Thread Monitor Enqueue: Null pointer");
    expect_no_more_logs();
    EXPECT_EQ(plm_thread_monitor_list.next, &plm_thread_monitor_list);
}

TEST_F(ThreadMonitorTest, AllocationFailureSaysNullPointer)
{
    fail_calloc = true;
    int result = plm_thread_monitor_enqueue(&thread, "x");
    fail_calloc = false;
    EXPECT_EQ(result, -1);
    expect_log(LOG_ERR, "Null pointer");
    expect_no_more_logs();
}

TEST_F(ThreadMonitorTest, NullNameIsUnknown)
{
    ASSERT_EQ(plm_thread_monitor_enqueue(&thread, nullptr), 0);
    expect_log(LOG_DEBUG, "Thread Monitoring: unknown");
    EXPECT_STREQ(plm_thread_monitor_list.next->name, "unknown");
}

TEST_F(ThreadMonitorTest, LongNameIsCutTo63)
{
    const std::string expected(63, 'a');

    ASSERT_EQ(plm_thread_monitor_enqueue(&thread, std::string(79, 'a').c_str()),
              0);
    EXPECT_EQ(plm_thread_monitor_list.next->name, expected);
    /* Exactly 64 characters. */
    ASSERT_EQ(plm_thread_monitor_enqueue(&thread, std::string(64, 'a').c_str()),
              0);
    EXPECT_EQ(plm_thread_monitor_list.next->name, expected);
    /* 63 fit whole. */
    ASSERT_EQ(plm_thread_monitor_enqueue(&thread, expected.c_str()), 0);
    EXPECT_EQ(plm_thread_monitor_list.next->name, expected);
}

TEST_F(ThreadMonitorTest, NewestEntryComesFirst)
{
    ASSERT_EQ(plm_thread_monitor_enqueue(&first, "pellin sys poll"), 0);
    ASSERT_EQ(plm_thread_monitor_enqueue(&second, "pellin IPC server"), 0);
    EXPECT_STREQ(plm_thread_monitor_list.next->name, "pellin IPC server");
    EXPECT_STREQ(plm_thread_monitor_list.next->next->name, "pellin sys poll");
    EXPECT_EQ(plm_thread_monitor_list.next->next->next,
              &plm_thread_monitor_list);
    EXPECT_EQ(plm_thread_monitor_list.prev->thread, &first);
}

/* A thread that returns at once; joined on destruction unless the monitor
 * has joined it. */
class EndedThread {
public:
    EndedThread()
    {
        started_ =
            pthread_create(&handle_, nullptr, return_at_once, nullptr) == 0;
    }
    EndedThread(const EndedThread &) = delete;
    EndedThread &operator=(const EndedThread &) = delete;
    ~EndedThread()
    {
        if (started_ && !joined_elsewhere)
            pthread_join(handle_, nullptr);
    }

    bool started() const
    {
        return started_;
    }
    pthread_t *handle()
    {
        return &handle_;
    }

    bool joined_elsewhere = false;

private:
    pthread_t handle_{};
    bool started_ = false;
};

TEST_F(ThreadMonitorTest, ThreadThatReturnedIsFoundOnce)
{
    LiveThread alive;
    EndedThread ended;
    plm_thread_monitor_entry *found = nullptr;

    ASSERT_TRUE(alive.started());
    ASSERT_TRUE(ended.started());
    ASSERT_EQ(plm_thread_monitor_enqueue(ended.handle(), "pellin sys poll"),
              0);
    ASSERT_EQ(plm_thread_monitor_enqueue(alive.handle(), "pellin IPC server"),
              0);
    /* The ended thread is found (and joined) even behind a live one. */
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (found == nullptr && std::chrono::steady_clock::now() < deadline) {
        found = plm_thread_monitor_find_ended();
        if (found == nullptr)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_NE(found, nullptr)
        << "the thread that returned was not found within 5 s";
    ended.joined_elsewhere = found->thread == ended.handle();
    EXPECT_STREQ(found->name, "pellin sys poll");
}

TEST_F(ThreadMonitorTest, LiveThreadsAreNotFound)
{
    LiveThread alive;

    ASSERT_TRUE(alive.started());
    ASSERT_EQ(plm_thread_monitor_enqueue(alive.handle(), "pellin IPC server"),
              0);
    EXPECT_EQ(plm_thread_monitor_find_ended(), nullptr);
}

} // namespace
