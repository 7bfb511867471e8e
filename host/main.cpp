// comhost: the parent process of comserver. It builds the shared segment
// and semaphore set from a TOML file, puts the driver plug-ins where the
// server looks for them, runs the server and cleans up after it.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include <unistd.h>

#include "host/config.h"
#include "host/ipc.h"
#include "host/segment.h"
#include "host/supervise.h"

namespace fs = std::filesystem;

namespace {

constexpr int EXIT_BAD_CONFIG = 2;

void usage()
{
    fprintf(stderr, "usage: comhost [--server PATH] CONFIG.toml\n");
}

fs::path own_dir()
{
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : exe.parent_path();
}

// The built plug-ins that "sim" and "modbus" name.
struct BuiltPlugins {
    fs::path sim;
    fs::path modbus;
};

// The plug-in file of a port, or an empty path for "none".
fs::path plugin_source(const HostPort& port, const BuiltPlugins& built)
{
    switch (port.plugin) {
    case HostPlugin::sim: return built.sim;
    case HostPlugin::modbus: return built.modbus;
    case HostPlugin::file: return port.plugin_file;
    case HostPlugin::none: break;
    }
    return {};
}

// Checks that every file comhost needs exists; prints what is missing.
bool files_present(const HostConfig& cfg, const fs::path& server, const BuiltPlugins& built)
{
    bool ok = true;
    if (access(server.c_str(), X_OK) != 0) {
        fprintf(stderr, "comhost: server %s is not an executable file\n", server.c_str());
        ok = false;
    }
    for (const HostPort& port : cfg.ports) {
        fs::path src = plugin_source(port, built);
        if (!src.empty() && !fs::is_regular_file(src)) {
            fprintf(stderr, "comhost: plug-in %s of port %u not found\n", src.c_str(),
                    unsigned{port.record.deviceport});
            ok = false;
        }
    }
    return ok;
}

// Copies each port's plug-in into the plug-in directory under the name the
// server loads. The copy is renamed into place, so a server still running
// from an earlier copy keeps its mapping intact.
bool install_plugins(const HostConfig& cfg, const BuiltPlugins& built)
{
    std::error_code ec;
    fs::create_directories(cfg.plugin_dir, ec);
    if (ec) {
        fprintf(stderr, "comhost: cannot create %s: %s\n", cfg.plugin_dir.c_str(), ec.message().c_str());
        return false;
    }
    const char* prefix = cfg.mode == 0 ? "drv_p" : "sim_drv_p";
    for (const HostPort& port : cfg.ports) {
        fs::path src = plugin_source(port, built);
        if (src.empty())
            continue;
        std::string name = prefix + std::to_string(port.record.deviceport) + ".so";
        fs::path dst = cfg.plugin_dir / name;
        fs::path tmp = cfg.plugin_dir / (name + ".tmp");
        fs::copy_file(src, tmp, fs::copy_options::overwrite_existing, ec);
        if (!ec)
            fs::rename(tmp, dst, ec);
        if (ec) {
            fprintf(stderr, "comhost: cannot install %s as %s: %s\n", src.c_str(), dst.c_str(),
                    ec.message().c_str());
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    HostSignals signals;

    fs::path server_arg, config_file;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--server") == 0 && i + 1 < argc) {
            server_arg = fs::absolute(argv[++i]).lexically_normal();
        } else if (argv[i][0] == '-' || !config_file.empty()) {
            usage();
            return EXIT_BAD_CONFIG;
        } else {
            config_file = argv[i];
        }
    }
    if (config_file.empty()) {
        usage();
        return EXIT_BAD_CONFIG;
    }

    HostConfig cfg;
    try {
        cfg = host_config_load(config_file);
    } catch (const HostConfigError& e) {
        fprintf(stderr, "comhost: %s: %s\n", config_file.c_str(), e.what());
        return EXIT_BAD_CONFIG;
    }
    fs::path dir = own_dir();
    fs::path server = !server_arg.empty() ? server_arg : !cfg.server.empty() ? cfg.server : dir / "comserver";
    const BuiltPlugins built{
        !cfg.sim_plugin.empty() ? cfg.sim_plugin : (dir / "../lib/sim_drv.so").lexically_normal(),
        !cfg.modbus_plugin.empty() ? cfg.modbus_plugin : (dir / "../lib/modbus_drv.so").lexically_normal()};
    if (!files_present(cfg, server, built))
        return EXIT_BAD_CONFIG;
    if (!install_plugins(cfg, built))
        return 1;

    SegmentLayout layout = segment_layout(cfg);
    HostIpc ipc;
    std::string err;
    if (!ipc.create(layout.size, err)) {
        fprintf(stderr, "comhost: %s\n", err.c_str());
        return 1;
    }
    segment_fill(ipc.base(), layout, cfg);

    ServerLaunch launch{server, cfg.plugin_dir, cfg.mode, ipc.shmid(), ipc.semid(), cfg.tcp_port};
    return supervise_server(launch, reinterpret_cast<shm_head*>(ipc.base()), signals);
}
