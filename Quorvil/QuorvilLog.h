// QuorvilLog.h: the plain log line, and the gated logging call of the library's own sources
// Foundation, on siblings/OvxLog

#ifndef QUORVIL_QUORVILLOG_H
#define QUORVIL_QUORVILLOG_H

#include "Quorvil/QuorvilExport.h"
#include "siblings/OvxLog/OvxLog.h"

#include <atomic>
#include <cstdint>

/// Writes a plain log line to standard output by `vfprintf`.
///
/// The line's prefix stands in `format`: "[", the level word, a blank, the source, ":", the line, "]" and four blanks.
/// Nothing is locked beyond `stdout` itself, and nothing is flushed: lines may interleave with `safeCout`.
///
/// @param format  as for `printf`
/// @return the result of `vfprintf`: the number of characters, negative on a write error
/// @threads any   @realtime I/O
QUORVIL_API int my_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

namespace quorvil::intern {

/// What a source's group index is before its first logging call; it is never silenced.
inline constexpr uint32_t noLogGroup = 0xFFFFFFFF;

/// Whether a logging call of the group with this index is dropped at its place: the configuration is loaded, the
/// index is one of the table, and its record says so. Both may change at any time.
///
/// @threads any   @realtime bounded
inline bool logSilenced(uint32_t groupIndex)
{
    return __atomic_load_n(&gl_bOVXLConfigLoaded, __ATOMIC_RELAXED) != 0 && groupIndex < 64 &&
           __atomic_load_n(&gl_psOvxLogGrpCfgTable[groupIndex].logEnabled, __ATOMIC_RELAXED) == 0;
}

} // namespace quorvil::intern

/// Puts the source into log group `name`: once in each source that can log, at file scope. The name's address becomes
/// the source's slot in the sections LogGroups and LogGroupsA, two parallel tables in link order. The slot is volatile
/// because the text is read from it at every logging call.
#define QUORVIL_LOG_GROUP(name)                                                                                        \
    [[gnu::section("LogGroups"), gnu::used]] static const char* volatile logGroupName = name;                          \
    [[gnu::section("LogGroupsA"), gnu::used]] static const char* volatile logGroupNameA = name

/// Gives the source its cached group index: once in each source that contains a `QUORVIL_LOG`, at file scope. Any value
/// that the log has returned serves the gate, so that stores need no order among threads.
#define QUORVIL_LOG_INDEX() static constinit std::atomic<uint32_t> logGroupIndex = quorvil::intern::noLogGroup

/// The logging call: `OVX_Log_Printf` with the source's group, unless the group is silent. The arguments behind the
/// format are evaluated only if the call is made.
#define QUORVIL_LOG(file, line, format, ...)                                                                           \
    do {                                                                                                               \
        const uint32_t quorvilLogIndex = logGroupIndex.load(std::memory_order_relaxed);                                \
        if (!quorvil::intern::logSilenced(quorvilLogIndex))                                                            \
            logGroupIndex.store(OVX_Log_Printf(quorvilLogIndex, logGroupName, 1, 1, 1, 0, file, line,                  \
                                               format __VA_OPT__(, ) __VA_ARGS__),                                     \
                                std::memory_order_relaxed);                                                            \
    } while (false)

#endif
