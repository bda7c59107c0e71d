#include "siblings/OvxLog/OvxLog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

uint32_t gl_bOVXLConfigLoaded = 0;
OvxLogGroupCfg gl_psOvxLogGrpCfgTable[64] = {};

namespace {

constexpr uint32_t groupCount = 64;

constinit std::atomic<const char*> groups[groupCount] = {};
constinit std::atomic<int> callCount{0};
constinit ovxlog::LastCall last = {};
constinit std::atomic_flag lastBusy = {};

uint32_t indexOf(const char* group)
{
    for (uint32_t i = 0; i < groupCount; ++i) {
        const char* seen = groups[i].load();
        // A lost race leaves the winner's text in `seen`, which may be our own group's.
        if (!seen && groups[i].compare_exchange_strong(seen, group))
            return i;
        if (std::strcmp(seen, group) == 0)
            return i;
    }
    return groupCount;
}

void copyText(char* to, size_t size, const char* from)
{
    std::snprintf(to, size, "%s", from);
}

} // namespace

uint32_t OVX_Log_Printf(uint32_t groupIndex, const char* group, int one, int two, int three, int four, const char* file,
                        int line, const char* format, ...)
{
    char text[sizeof(ovxlog::LastCall::text)];
    std::va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0)
        text[0] = '\0';
    va_end(arguments);

    char whole[sizeof text + sizeof(ovxlog::LastCall::file) + sizeof(ovxlog::LastCall::group) + 32];
    const int length = std::snprintf(whole, sizeof whole, "[%.63s %.127s:%d] %s", group, file, line, text);
    if (length > 0) {
        // Standard error is the log's only place; there is nobody to tell when it is closed.
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, whole, static_cast<size_t>(length));
    }

    // Never waited for: a child forked while it is taken skips the note instead of hanging.
    if (!lastBusy.test_and_set()) {
        last.groupIndex = groupIndex;
        copyText(last.group, sizeof last.group, group);
        copyText(last.file, sizeof last.file, file);
        last.line = line;
        last.constants = {one, two, three, four};
        copyText(last.text, sizeof last.text, text);
        lastBusy.clear();
    }
    ++callCount;
    return indexOf(group);
}

int ovxlog::calls()
{
    return callCount;
}

ovxlog::LastCall ovxlog::lastCall()
{
    return last;
}
