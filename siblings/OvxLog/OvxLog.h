// OvxLog.h: stand-in of the logging library
// Sibling library, on nothing

#ifndef QUORVIL_SIBLINGS_OVXLOG_H
#define QUORVIL_SIBLINGS_OVXLOG_H

#include <array>
#include <cstdint>

/// One record of the group table; `logEnabled` is what the callers' gates read. A system library has to have this
/// record: where its record is larger, give it its fields here.
struct OvxLogGroupCfg
{
    uint32_t logEnabled; ///< zero: statements of the group are dropped at their place
};

extern "C" {

/// Non-zero once the logging configuration is loaded. Before that no statement is silenced.
__attribute__((visibility("default"))) extern uint32_t gl_bOVXLConfigLoaded;

/// The group table. The symbol is the first record; the index of a group is what `OVX_Log_Printf` returned for it.
__attribute__((visibility("default"))) extern OvxLogGroupCfg gl_psOvxLogGrpCfgTable[64];

/// Writes one log text to standard error and tells the index of its group.
///
/// Each new group text gets the next free index of the table; a group text beyond the 64th gets 64, which no gate
/// silences. The four constants have a meaning in the real library only. No lock is taken: a forked child may call it.
///
/// @param groupIndex  what the last call of this place returned; 0xFFFFFFFF at the first
/// @param group       the group text; it must outlive the process's last call
/// @param file, line  the place of the statement
/// @param format      as for `printf`; a text above 1023 characters is cut
/// @return the index of the group
/// @threads any   @realtime I/O
__attribute__((visibility("default"), format(printf, 9, 10))) uint32_t OVX_Log_Printf(uint32_t groupIndex,
                                                                                      const char* group, int one,
                                                                                      int two, int three, int four,
                                                                                      const char* file, int line,
                                                                                      const char* format, ...);
}

/// What a test needs to see of the stand-in.
namespace ovxlog {

/// The last call of `OVX_Log_Printf`. Texts are copies, cut where a field is full.
struct LastCall
{
    uint32_t groupIndex; ///< as passed in
    char group[64];
    std::array<int, 4> constants; ///< the four that have a meaning in the real library only
    char file[128];
    int line;
    char text[1024]; ///< as formatted
};

/// How often `OVX_Log_Printf` was called in this process.
///
/// @threads any   @realtime bounded
__attribute__((visibility("default"))) int calls();

/// The last call, by value. Callers on several threads must have ended.
///
/// @threads one at a time   @realtime bounded
__attribute__((visibility("default"))) LastCall lastCall();

} // namespace ovxlog

#endif
