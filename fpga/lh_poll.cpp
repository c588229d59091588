/* The library poll thread and the register dump. */
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "lh_block_ops.hpp"
#include "lh_check.hpp"
#include "lh_layout.hpp"
#include "lh_regs.hpp"

constexpr useconds_t poll_interval_us = 500000;
constexpr size_t dump_path_size = 169;
constexpr const char *dump_path_format =
    "/opt/orvel/platform/logs/lark_hollow_dump__%b-%d-%Y__%I-%M-%S-%p.log";
using lh::dump_filler;
/* The last word of the base window closes a run at once; the
 * rule never applies on the smaller LHX window; dumps keep this shape. */
constexpr unsigned long dump_last_base_word = 0x2A0FC;

static std::atomic<bool> poll_stop;
static std::atomic<bool> poll_started;
static pthread_t poll_thread;
static std::atomic<lh_fatal_error_cb> fatal_error_cb;

void lh_register_fatal_error_cb(lh_fatal_error_cb cb)
{
    fatal_error_cb.store(cb, std::memory_order_relaxed);
}

static int module_failed(const lh_module_entry *entry)
{
    return lh_module_state[entry->module_id][entry->pipe].load(
        std::memory_order_relaxed);
}

static void refresh_block(const struct lh_block_ops *ops, uint32_t pipe)
{
    if (ops->rx_align_monitor != NULL)
        ops->rx_align_monitor(pipe);
    if (ops->update_stats != NULL)
        ops->update_stats(pipe);
}

static void report_fatal_error(const lh_module_entry *entry,
                               lh_fatal_error_t *report)
{
    lh_fatal_error_cb cb;

    lh_module_state[entry->module_id][entry->pipe].store(
        1, std::memory_order_relaxed);
    lh_register_dump();
    cb = fatal_error_cb.load(std::memory_order_relaxed);
    if (cb != NULL) {
        report->module_id = entry->module_id;
        report->pipe = entry->pipe;
        cb(*report);
    }
}

static void poll_entry(const lh_module_entry *entry, lh_fatal_error_t *report)
{
    const struct lh_block_ops *ops;

    if (entry->module_id >= LH_MOD_COUNT) {
        lh_log(LOG_ERR,
               "%s - unsupported module %d encountered during sys poll",
               LH_TAG(ERROR), entry->module_id);
        return;
    }
    if (entry->pipe >= LH_MAX_PIPES || module_failed(entry))
        return;
    ops = lh_block_ops_of(entry->module_id);
    if (ops == NULL)
        return;
    if (ops->fatal_error_detect(entry->pipe, report) == 1)
        report_fatal_error(entry, report);
    else
        refresh_block(ops, entry->pipe);
}

void lh_sys_poll_scan(const lh_device_desc *desc, lh_fatal_error_t *report)
{
    for (const lh_module_entry *entry = desc->module_list;
         entry->module_id != LH_MOD_END; entry++)
        poll_entry(entry, report);
}

static void *lh_sys_poll_thread(void *unused)
{
    lh_fatal_error_t report = { 0, 0, NULL };
    lh_device_desc *desc;

    (void)unused;
    pthread_setname_np(pthread_self(), "lh_sys_poll");
    desc = lh::csr_device();
    if (desc == NULL)
        return NULL;
    while (!poll_stop.load(std::memory_order_relaxed)) {
        usleep(poll_interval_us);
        lh_sys_poll_scan(desc, &report);
    }
    lh_log(LOG_DEBUG, "Larks Hollow FPGA system poll thread terminated...");
    return NULL;
}

int lh_sys_poll_init(void)
{
    poll_stop.store(false);
    if (pthread_create(&poll_thread, NULL, lh_sys_poll_thread, NULL) != 0) {
        lh_log(LOG_CRIT, "%s: create system poll thread failed",
               "Larks Hollow FPGA");
        return -1;
    }
    poll_started.store(true);
    lh_log(LOG_DEBUG, "Larks Hollow FPGA system poll thread started...");
    return 0;
}

void lh_sys_poll_stop(void)
{
    poll_stop.store(true);
    if (poll_started.exchange(false))
        pthread_join(poll_thread, NULL);
}

static void write_module_status(FILE *file, const lh_device_desc *desc)
{
    fprintf(file, "\n%s\n", lh::dump_status_header);
    for (const lh_module_entry *entry = desc->module_list;
         entry->module_id != LH_MOD_END; entry++) {
        int failed = entry->module_id < LH_MOD_COUNT &&
                     entry->pipe < LH_MAX_PIPES && module_failed(entry);

        fprintf(file, "module: %s, pipe: %d, status: %s\n",
                entry->module_id < LH_MOD_COUNT
                    ? lh_module_names[entry->module_id]
                    : "(unknown)",
                entry->pipe, failed ? "FAILED" : "OK");
    }
}

/* Runs of the filler word are one line "first-last: 0xdeadbeef"; a run
 * still open at the end of the window leaves "first-" unterminated. */
static void write_register_words(FILE *file, const lh_device_desc *desc)
{
    lh::Window window(desc->mapped_base);
    int in_run = 0;

    fprintf(file, "\n%s\n", lh::dump_register_header);
    for (unsigned long offset = 0; offset < desc->window_size; offset += 4) {
        uint32_t value = window.read(lh::Reg{(uint32_t)offset});

        if (value == dump_filler) {
            if (in_run)
                continue;
            fprintf(file, "0x%05lx-", offset);
            in_run = offset != dump_last_base_word;
            if (!in_run)
                fprintf(file, "0x%05lx: 0x%08x\n", offset, dump_filler);
            continue;
        }
        if (in_run) {
            fprintf(file, "0x%05lx: 0x%08x\n", offset - 4, dump_filler);
            in_run = 0;
            value = window.read(lh::Reg{(uint32_t)offset});
        }
        fprintf(file, "0x%05lx: 0x%08x\n", offset, value);
    }
}

void lh_register_dump_write(FILE *file, const lh_device_desc *desc)
{
    write_module_status(file, desc);
    write_register_words(file, desc);
}

struct FileClose {
    void operator()(FILE *file) const { fclose(file); }
};

void lh_register_dump(void)
{
    char path[dump_path_size];
    time_t now = time(NULL);
    struct tm local;
    lh_device_desc *desc;

    if (localtime_r(&now, &local) == NULL ||
        strftime(path, sizeof(path), dump_path_format, &local) == 0)
        return;
    desc = lh::csr_device();
    if (desc == NULL)
        return;
    std::unique_ptr<FILE, FileClose> file(fopen(path, "a+"));
    if (file)
        lh_register_dump_write(file.get(), desc);
}
