// Runs the server as a child of comhost and watches it until it ends.
#pragma once

#include <csignal>
#include <cstdint>
#include <filesystem>

#include "base/port_config.h"

struct ServerLaunch {
    std::filesystem::path server;   // absolute path of the executable
    std::filesystem::path workdir;  // the plug-in directory
    int mode;
    int shmid;
    int semid;
    uint16_t tcp_port;
};

// Takes SIGINT, SIGTERM and SIGCHLD out of normal delivery for the rest of
// comhost's life: they stay blocked and are collected by supervise_server.
// Made first thing in main, so that no signal can end comhost between the
// creation of its IPC objects and their removal. A shell may have started
// comhost with SIGINT ignored (a background job); the default action is put
// back so that the signal is collected and the server, which inherits the
// dispositions, acts on what comhost forwards.
class HostSignals {
public:
    HostSignals();
    HostSignals(const HostSignals&) = delete;
    HostSignals& operator=(const HostSignals&) = delete;

    const sigset_t& watched() const { return watched_; }
    // In a child before exec: the signal mask comhost started with.
    void restore_in_child() const;

private:
    sigset_t watched_;
    sigset_t old_mask_;
};

// Starts "server MODE SHMID SEMID" in workdir. While it runs, forwards
// SIGINT and SIGTERM to it and announces its pid once it has written it
// into head. Returns comhost's exit code: 0 when the server ended through a
// forwarded signal, 1 otherwise (including a failed start).
int supervise_server(const ServerLaunch& launch, shm_head* head, const HostSignals& signals);
