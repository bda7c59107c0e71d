// ImplementedFunc.h: a registry of implemented functions by name
// Foundation

#ifndef QUORVIL_IMPLEMENTEDFUNC_H
#define QUORVIL_IMPLEMENTEDFUNC_H

#include "Quorvil/QuorvilExport.h"

#include <mutex>
#include <set>
#include <string>

namespace ovx {

/// The names of the functions that other components have implemented. The library keeps the set and its lock ready and
/// neither fills nor reads it.
class QUORVIL_API ImplementedFunc
{
public:
    virtual ~ImplementedFunc();

    /// The names; empty at load. Take `mu` before every use: who holds it is the owner.
    ///
    /// @threads owner   @realtime allocates
    static std::set<std::string> allImplemented;

    /// Guards `allImplemented`. It is usable before any constructor has run.
    ///
    /// @threads any   @realtime waits
    static std::mutex mu;
};

} // namespace ovx

#endif
