// Fork, exec and wait for the server. Between fork and exec the child makes
// only async-signal-safe calls.
#include "host/supervise.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/ignore_result.h"

namespace {

// In the child between fork and exec: only async-signal-safe calls.
[[noreturn]] void exec_server(const ServerLaunch& l, char* const argv[], const HostSignals& signals, pid_t parent)
{
    signals.restore_in_child();
    // The server must not outlive comhost, which owns its segment.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent)
        _exit(1);
    if (chdir(l.workdir.c_str()) != 0) {
        static const char msg[] = "comhost: cannot enter the plug-in directory\n";
        ignore_result(write(2, msg, sizeof msg - 1));
        _exit(127);
    }
    execv(argv[0], argv);
    static const char msg[] = "comhost: cannot execute the server\n";
    ignore_result(write(2, msg, sizeof msg - 1));
    _exit(127);
}

void report_end(int status)
{
    if (WIFSIGNALED(status))
        fprintf(stderr, "comhost: server ended by signal %d\n", WTERMSIG(status));
    else
        fprintf(stderr, "comhost: server exited with status %d\n", WEXITSTATUS(status));
}

} // namespace

HostSignals::HostSignals()
{
    sigemptyset(&watched_);
    sigaddset(&watched_, SIGINT);
    sigaddset(&watched_, SIGTERM);
    sigaddset(&watched_, SIGCHLD);
    sigprocmask(SIG_BLOCK, &watched_, &old_mask_);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGINT, &dfl, nullptr);
    sigaction(SIGTERM, &dfl, nullptr);
}

void HostSignals::restore_in_child() const
{
    sigprocmask(SIG_SETMASK, &old_mask_, nullptr);
}

int supervise_server(const ServerLaunch& l, shm_head* head, const HostSignals& signals)
{
    std::string server = l.server.string();
    std::string mode = std::to_string(l.mode);
    std::string shmid = std::to_string(l.shmid);
    std::string semid = std::to_string(l.semid);
    char* const argv[] = {server.data(), mode.data(), shmid.data(), semid.data(), nullptr};

    fflush(nullptr);
    pid_t parent = getpid();
    pid_t child = fork();
    if (child < 0) {
        fprintf(stderr, "comhost: fork: %s\n", strerror(errno));
        return 1;
    }
    if (child == 0)
        exec_server(l, argv, signals, parent);

    int forwarded = 0;
    bool announced = false;
    int status = 0;
    const timespec tick{0, 50'000'000};
    for (;;) {
        int sig = sigtimedwait(&signals.watched(), nullptr, &tick);
        if (sig == SIGINT || sig == SIGTERM) {
            forwarded = sig;
            kill(child, sig);
        }
        if (!announced) {
            uint32_t pid = std::atomic_ref<uint32_t>(head->server_pid).load(std::memory_order_relaxed);
            if (pid) {
                printf("comhost: server pid %u, clients connect to 127.0.0.1:%u\n", pid, unsigned{l.tcp_port});
                fflush(stdout);
                announced = true;
            }
        }
        pid_t r = waitpid(child, &status, WNOHANG);
        if (r == child)
            break;
        if (r < 0 && errno != EINTR) {
            fprintf(stderr, "comhost: waitpid: %s\n", strerror(errno));
            return 1;
        }
    }
    report_end(status);
    bool by_our_signal = forwarded
        && ((WIFSIGNALED(status) && WTERMSIG(status) == forwarded) || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
    return by_our_signal ? 0 : 1;
}
