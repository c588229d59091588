/* The CPU cost of one library poll cycle on a two-pipe base board: every
 * block of the module list, NIC queues 0..255 on both pipes, ports up. The
 * window is the simulated board's file, mapped by the real libpciaccess, so
 * it is memory. Built twice: the register-model build counts the accesses
 * of one cycle (bench_poll_accesses); the production build times, in one
 * run, the cycle beside its floor (as many 32-bit reads of the same window
 * by a plain loop) and the register dump beside one fwrite of as many
 * bytes (bench_poll_cycle). Prints one "name: value unit" a line. */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>

#include "lh_device.hpp"
#include "lh_regs.hpp"
#include "simboard.hpp"

#ifndef LH_REG_MODEL
#include <benchmark/benchmark.h>
#endif

namespace {

struct sim_board *board;

void cleanup()
{
    if (board != nullptr)
        sim_board_destroy(board);
    board = nullptr;
}

int fail(const char *what)
{
    fprintf(stderr, "bench: %s failed%s%s\n", what,
            sim_board_last_error()[0] ? ": " : "", sim_board_last_error());
    cleanup();
    return 1;
}

/* The board's device, brought up with every block context and both ports
 * enabled. */
lh_device_desc *bring_up_board()
{
    lh_device_desc *descs = nullptr, *desc = nullptr;
    uint32_t count = 0;

    if (lh_pci_get_map(&descs, &count) != 0 || descs == nullptr ||
        lh_pci_system_init(descs, count) != 0 ||
        lh_pci_get_csr_device(&desc) != 0 || desc == nullptr ||
        lh_base_device_init() != 0)
        return nullptr;
    for (uint32_t pipe = 0; pipe < lh_get_traffic_pipe_count(); pipe++)
        if (lh_set_traffic_pipe_state(pipe, 1) != 0)
            return nullptr;
    return desc;
}

#ifdef LH_REG_MODEL
/* The counting seam: plain memory accesses, each one counted. */
unsigned long accesses;

} // namespace

uint32_t lh_reg_model_read(volatile void *base, uint32_t offset)
{
    accesses++;
    return *(volatile uint32_t *)((volatile uint8_t *)base + offset);
}

void lh_reg_model_write(volatile void *base, uint32_t offset, uint32_t value)
{
    accesses++;
    *(volatile uint32_t *)((volatile uint8_t *)base + offset) = value;
}

namespace {

int measure(lh_device_desc *desc, int, char **)
{
    lh_fatal_error_t fatal = {0, 0, nullptr};

    accesses = 0;
    lh_sys_poll_scan(desc, &fatal);
    printf("register_accesses_per_cycle: %lu\n", accesses);
    return 0;
}
#else
lh_device_desc *device;
unsigned long accesses_per_cycle;
std::string dump_path;
long dump_bytes;

constexpr int rounds = 10;

void poll_cycle(benchmark::State &state)
{
    lh_fatal_error_t report = {0, 0, nullptr};

    for (auto _ : state)
        lh_sys_poll_scan(device, &report);
}

/* As many reads as a cycle makes, from the start of the same window. */
void floor_reads(benchmark::State &state)
{
    lh::Window window(device->mapped_base);
    unsigned long reads = std::min<unsigned long>(accesses_per_cycle,
                                                  device->window_size / 4);

    for (auto _ : state) {
        uint32_t sum = 0;

        for (uint32_t i = 0; i < reads; i++)
            sum += window.read(lh::Reg{i * 4});
        benchmark::DoNotOptimize(sum);
    }
}

void dump_write(benchmark::State &state)
{
    for (auto _ : state) {
        FILE *file = fopen(dump_path.c_str(), "w");

        if (file == nullptr)
            return state.SkipWithError("cannot open the dump file");
        lh_register_dump_write(file, device);
        dump_bytes = ftell(file);
        fclose(file);
    }
}

void dump_fwrite(benchmark::State &state)
{
    std::string bytes(dump_bytes, 'x');

    for (auto _ : state) {
        FILE *file = fopen(dump_path.c_str(), "w");

        if (file == nullptr)
            return state.SkipWithError("cannot open the dump file");
        fwrite(bytes.data(), 1, bytes.size(), file);
        fclose(file);
    }
}

/* The fastest repetition of each benchmark, in microseconds: the least
 * disturbed by other load. */
class BestOf : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.run_type != Run::RT_Iteration)
                continue;
            double us = run.GetAdjustedRealTime();
            std::string name = run.run_name.function_name;
            auto [it, added] = best.emplace(name, us);
            if (!added)
                it->second = std::min(it->second, us);
        }
    }

    std::map<std::string, double> best;
};

int measure(lh_device_desc *desc, int argc, char **argv)
{
    char dir[] = "/tmp/bench_dump_XXXXXX"; /* inside the board's sandbox */
    BestOf reporter;

    benchmark::Initialize(&argc, argv);
    if (argc != 2) {
        fprintf(stderr, "usage: %s ACCESSES_PER_CYCLE\n", argv[0]);
        return 1;
    }
    if (mkdtemp(dir) == nullptr)
        return fail("mkdtemp");
    device = desc;
    accesses_per_cycle = strtoul(argv[1], nullptr, 10);
    dump_path = std::string(dir) + "/dump.log";
    using Body = void (*)(benchmark::State &);
    const std::pair<const char *, Body> bodies[] = {
        {"poll_cycle", poll_cycle},
        {"floor", floor_reads},
        {"dump_write", dump_write},
        {"dump_fwrite", dump_fwrite},
    };
    /* Each pair alternates, so that other load on the machine falls on
     * both sides alike. */
    for (int round = 0; round < rounds; round++)
        for (auto [name, body] : bodies)
            benchmark::RegisterBenchmark(name, body)
                ->Unit(benchmark::kMicrosecond)
                ->MinTime(0.05);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    remove(dump_path.c_str());
    rmdir(dir);

    double cycle = reporter.best["poll_cycle"], floor = reporter.best["floor"];
    double dump = reporter.best["dump_write"];
    double fwrite_us = reporter.best["dump_fwrite"];
    printf("poll_cycle_us: %.2f us\n", cycle);
    printf("floor_us: %.2f us\n", floor);
    printf("poll_cycle_vs_floor: %.2f x\n", cycle / floor);
    printf("register_accesses_per_cycle: %lu accesses\n", accesses_per_cycle);
    printf("dump_bytes: %ld bytes\n", dump_bytes);
    printf("dump_write_us: %.2f us\n", dump);
    printf("dump_fwrite_us: %.2f us\n", fwrite_us);
    printf("dump_write_vs_fwrite: %.2f x\n", dump / fwrite_us);
    return 0;
}
#endif

} // namespace

int main(int argc, char **argv)
{
    char root[] = "/tmp/bench_board_XXXXXX";
    std::string board_root;
    lh_device_desc *desc;

    if (mkdtemp(root) == nullptr)
        return fail("mkdtemp");
    board_root = std::string(root) + "/board";
    if (sim_board_create(board_root.c_str(), SIM_BOARD_BASE2, &board) != 0)
        return fail("board");
    atexit(cleanup);
    if (sim_board_enter(board, nullptr) != 0)
        return fail("sandbox");
    desc = bring_up_board();
    if (desc == nullptr)
        return fail("bring-up");
    int status = measure(desc, argc, argv);
    cleanup();
    rmdir(root);
    return status;
}
