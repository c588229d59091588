/* What the tool tests share: temporary directories, child processes that
 * never outlive their owner, the privileges a case may need, and the
 * daemon's statistics record read straight from its socket. */
#ifndef TOOL_SUPPORT_H
#define TOOL_SUPPORT_H

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

/* A fresh directory "PREFIXxxxxxx", removed with everything in it when the
 * owner goes. path() is empty when it could not be made. */
class TempDir {
public:
    explicit TempDir(const std::string &prefix);
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    bool made() const { return !path_.empty(); }
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const
    {
        return path_ + "/" + name;
    }

private:
    std::string path_;
};

/* Sets an environment variable until the owner goes, then restores it. */
class ScopedEnv {
public:
    ScopedEnv(const char *name, const std::string &value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    std::string name_;
    std::string saved_;
    bool was_set_;
};

/* A child process, killed (with its process group when it leads one) and
 * reaped when the owner goes. Whatever it leaves running in its group when
 * it ends is killed as it is reaped. */
class Child {
public:
    Child() = default;
    explicit Child(pid_t pid, bool group_leader = false)
        : pid_(pid), group_(group_leader ? pid : 0)
    {
    }
    ~Child() { stop(); }
    Child(Child &&other) noexcept;
    Child &operator=(Child &&other) noexcept;
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0; }
    /* Waits at most timeout_ms for its end (then kills it): true, with the
     * wait status in *status, when it ended by itself. */
    bool wait(int timeout_ms, int *status);
    /* True, and the child forgotten, when it has already ended. */
    bool ended();
    /* Sends sig to the child; -1 when there is none. */
    int signal(int sig) const;
    /* SIGKILL to the child and its group, and reaps it. */
    void stop();

private:
    bool has_exited() const;
    /* Kills what is left of the child and its group; the wait status. */
    int reap();

    pid_t pid_ = -1;
    pid_t group_ = 0;
};

/* Where a spawned program's standard streams go, and as whom it runs. */
struct SpawnOptions {
    std::string in = "/dev/null";
    std::string out;
    std::string err;
    uid_t uid = 0;          /* 0: as the caller; else that uid and gid */
    bool own_group = false; /* a process group of its own */
};

/* fork + execv(program, argv); the child exits 126 when its streams or
 * its user cannot be set up, 127 when the program cannot be run. */
Child spawn_program(const std::string &program,
                    const std::vector<std::string> &argv,
                    const SpawnOptions &options);

/* Removes a directory tree, never following a link nor crossing into a
 * mount. */
void remove_tree(const std::string &path);

/* Whether this process can have the simulated board's sandbox (a private
 * mount namespace); the reason when not. */
bool sandbox_ready(std::string *why);

/* Whether a child of this process can become uid (with that gid and no
 * supplementary groups); the reason when not. */
bool can_become(uid_t uid, std::string *why);

/* The statistics record of a module instance from the daemon serving
 * socket (op 0xdb0006), without the reply's 16-byte head. Empty, with a
 * failure added, when there is no usable answer. */
std::vector<uint8_t> daemon_stats(const std::string &socket, uint32_t module,
                                  uint32_t pipe);

struct sim_board;

/* The service controller at keeper_svc, copied where the sandbox's PATH
 * finds it on board; a failure is added when it cannot be. */
void install_keeper_svc(struct sim_board *board, const std::string &keeper_svc);

/* The daemon at program spawned on board, its standard output into
 * out_path, with the sandbox's PATH: its pid, or -1 with a failure added. */
pid_t spawn_daemon(struct sim_board *board, const std::string &program,
                   const std::string &out_path);

/* The whole text of a file, "" when it cannot be read. */
std::string text_of(const std::string &path);
/* The file's last line, without its newline. */
std::string last_line_of(const std::string &path);

#endif
