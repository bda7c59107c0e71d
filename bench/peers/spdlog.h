// spdlog's backtrace: a ring of the newest messages below the logged level, printed on demand.

#ifndef QUORVIL_BENCH_PEERS_SPDLOG_H
#define QUORVIL_BENCH_PEERS_SPDLOG_H

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <cstddef>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

namespace bench {

class SpdlogBacktrace
{
public:
    /// @param messages  the ring's length; a backtrace counts messages, not bytes
    explicit SpdlogBacktrace(std::size_t messages)
        : logger("flightRecorder", std::make_shared<spdlog::sinks::ostream_sink_mt>(out))
    {
        logger.set_pattern("%v");
        logger.set_level(spdlog::level::info);
        logger.enable_backtrace(messages);
    }

    void add(std::string_view text)
    {
        logger.debug(text);
    }

    template <typename... T>
    void addf(spdlog::format_string_t<T...> format, T&&... values)
    {
        logger.debug(format, std::forward<T>(values)...);
    }

    /// The messages in the ring, one a line, between the backtrace's own two lines.
    std::string content()
    {
        out.str("");
        logger.dump_backtrace();
        return out.str();
    }

private:
    std::ostringstream out;
    spdlog::logger logger;
};

} // namespace bench

#endif
