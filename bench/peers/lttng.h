// An active tracepoint of LTTng-UST: a recording session of the benchmark's own, in snapshot mode, so that the ring
// overwrites itself and no consumer writes beside the measurement.

#ifndef QUORVIL_BENCH_PEERS_LTTNG_H
#define QUORVIL_BENCH_PEERS_LTTNG_H

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <unistd.h>

// The macros of the tracer do not compile without warnings.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wshadow"
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "bench/peers/lttngProvider.h"

namespace bench {

inline void lttngTrace(const char* name)
{
    lttng_ust_tracepoint(quorvil_bench, entry, name);
}

} // namespace bench
#pragma GCC diagnostic pop

namespace bench {

/// Turns the tracepoint on for as long as it lives, with a session daemon of its own where none runs.
class LttngSession
{
public:
    LttngSession()
    {
        std::filesystem::create_directories(folder);
        // It fails where one runs already, which then serves as well.
        run("lttng-sessiond --daemonize --no-kernel --pidfile=" + pidFile());
        if (!run("lttng create " + name + " --snapshot --output=" + folder + "/trace"))
            return;
        created = true;
        active = run("lttng enable-event --session=" + name + " --userspace quorvil_bench:entry") &&
                 run("lttng start " + name) && awaitTracepoint() && isRecorded("checked before it is timed");
    }

    ~LttngSession()
    {
        if (created)
            run("lttng destroy " + name);
        pid_t daemon = 0;
        if (std::ifstream(pidFile()) >> daemon && kill(daemon, SIGTERM) == 0) {
            // It deletes its file at its end.
            for (int i = 0; i < 1000 && std::filesystem::exists(pidFile()); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    LttngSession(const LttngSession&) = delete;
    LttngSession& operator=(const LttngSession&) = delete;

    /// The tracepoint is on, and what it was given was found in the trace.
    bool isActive() const
    {
        return active;
    }

private:
    static bool run(const std::string& command)
    {
        return std::system(("timeout 30 " + command + " > /dev/null 2>&1").c_str()) == 0;
    }

    std::string pidFile() const
    {
        return folder + "/sessiond.pid";
    }

    /// The process registers itself with the daemon in the background.
    static bool awaitTracepoint()
    {
        for (int i = 0; i < 1000; ++i) {
            if (lttng_ust_tracepoint_enabled(quorvil_bench, entry))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    bool isRecorded(const std::string& text) const
    {
        lttngTrace(text.c_str());
        if (!run("lttng snapshot record --session=" + name))
            return false;
        for (const auto& file : std::filesystem::recursive_directory_iterator(folder + "/trace")) {
            if (!file.is_regular_file())
                continue;
            std::ifstream stream(file.path(), std::ios::binary);
            const std::string content{std::istreambuf_iterator<char>(stream), {}};
            if (content.find(text) != std::string::npos)
                return true;
        }
        return false;
    }

    const std::string name = "quorvil-bench-" + std::to_string(getpid());
    const std::string folder = (std::filesystem::temp_directory_path() / name).string();
    bool created = false;
    bool active = false;
};

} // namespace bench

#endif
