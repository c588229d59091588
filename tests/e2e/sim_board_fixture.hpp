/* What the end-to-end tests share: a simulated board in a directory of its
 * own, the programs run on it in its sandbox, a syslog listener, and a
 * fixture that skips every case where the sandbox cannot be entered.
 * Each owner cleans up in its destructor, so a failed assertion leaves no
 * process running and no board directory behind. */
#ifndef SIM_BOARD_FIXTURE_H
#define SIM_BOARD_FIXTURE_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "simboard.hpp"

/* A program running in a board's sandbox; killed and reaped with the
 * object when it is still running. */
class BoardProcess {
public:
    BoardProcess() = default;
    explicit BoardProcess(pid_t pid) : pid_(pid) {}
    ~BoardProcess();
    BoardProcess(const BoardProcess &) = delete;
    BoardProcess &operator=(const BoardProcess &) = delete;
    BoardProcess(BoardProcess &&other) noexcept;
    BoardProcess &operator=(BoardProcess &&other) noexcept;

    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0; }

    /* Waits at most timeout_ms for the program to end and returns its wait
     * status; null when it had to be killed. Either way it is reaped. */
    std::optional<int> wait(int timeout_ms);
    /* Sends `signal`, then wait(timeout_ms). */
    std::optional<int> stop(int signal, int timeout_ms);
    /* The wait status when the program has ended (it is reaped then), or
     * null while it runs. */
    std::optional<int> ended();

private:
    void kill_and_reap();

    pid_t pid_ = 0;
};

/* A board of one kind in a fresh directory /tmp/PREFIX_XXXXXX/board. The
 * directory and everything in it go away with the object. */
class SimBoard {
public:
    SimBoard() = default;
    ~SimBoard() { reset(); }
    SimBoard(const SimBoard &) = delete;
    SimBoard &operator=(const SimBoard &) = delete;

    /* Builds the board; a fatal failure when it cannot. */
    void create(const char *prefix, enum sim_board_kind kind);
    /* Removes the board and its directory. */
    void reset();

    sim_board *get() const { return board_; }
    /* The directory holding the board; a place for the test's own files. */
    const std::string &parent() const { return parent_; }
    std::string path(sim_board_path_id id) const;
    /* A file in the board's log directory. */
    std::string log_file(const char *name) const;

    /* A window word; null when it cannot be read. */
    std::optional<uint32_t> read(uint32_t offset) const;
    ::testing::AssertionResult write(uint32_t offset, uint32_t value) const;
    /* Sets one bit of a window word, as the hardware raises a status bit. */
    ::testing::AssertionResult set_bit(uint32_t offset, unsigned bit) const;
    /* A 16-bit word of the configuration space. */
    std::optional<uint16_t> config16(uint32_t offset) const;

    /* Starts argv[0] in the board's sandbox. */
    ::testing::AssertionResult spawn(const sim_sandbox_opts *opts,
                                     const std::vector<std::string> &argv,
                                     BoardProcess *out) const;

private:
    sim_board *board_ = nullptr;
    std::string parent_;
};

/* A datagram socket standing in for /dev/log; closed and removed with the
 * object. */
class SyslogListener {
public:
    SyslogListener() = default;
    ~SyslogListener() { close(); }
    SyslogListener(const SyslogListener &) = delete;
    SyslogListener &operator=(const SyslogListener &) = delete;

    ::testing::AssertionResult open(const std::string &path);
    void close();

    int fd() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    /* Sandbox options that bind this socket at /dev/log. */
    sim_sandbox_opts sandbox_opts() const;
    /* The next message, or null after timeout_ms. */
    std::optional<sim_syslog_msg> next(int timeout_ms) const;

private:
    int fd_ = -1;
    std::string path_;
};

/* The whole text of a file; "" when it cannot be read. */
std::string text_of(const std::string &path);
int count_in_file(const std::string &path, const std::string &text);
int count_in_string(const std::string &content, const std::string &text);

/* Waits until the file holds `text`; `took` gets the milliseconds it
 * took. Fails after timeout_ms. */
::testing::AssertionResult text_appears(const std::string &path,
                                        const std::string &text,
                                        int timeout_ms,
                                        long long *took = nullptr);

/* Each of `texts` occurs in `content`, each after the one before. */
::testing::AssertionResult in_order(const std::string &content,
                                    const std::vector<std::string> &texts);

/* Whether this process may enter a board's sandbox, checked once by
 * entering one in a child; when not, why and what to do about it. */
bool sandbox_ready(std::string *why);

/* Cases that run programs on simulated boards: skipped at once, with the
 * reason, where the sandbox cannot be entered. */
class SimBoardTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;

        if (!sandbox_ready(&why))
            GTEST_SKIP() << why;
    }
};

#endif
