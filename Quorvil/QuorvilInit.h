// QuorvilInit.h: the library's version, its load-time constructor, and the choice of the locale
// Foundation

#ifndef QUORVIL_QUORVILINIT_H
#define QUORVIL_QUORVILINIT_H

#include "Quorvil/QuorvilExport.h"

/// The version of these headers: its three numbers, and all of it as text.
#define QUORVIL_VERSION_MAJOR 1
#define QUORVIL_VERSION_MINOR 0
#define QUORVIL_VERSION_PATCH 0
#define QUORVIL_VERSION "1.0.0"

extern "C" {

/// Calls `stampGate(52)` and nothing else. The loader calls it before any object of the library is constructed;
/// nobody else needs to.
///
/// @threads one at a time   @realtime bounded
QUORVIL_API void Quorvil_constructor();

/// Gives the process a German locale with English number formatting: `setlocale(LC_ALL, "de_DE.UTF-8")`, then
/// `setlocale(LC_NUMERIC, "en_US.UTF-8")`. The library does not call it at load.
///
/// A locale that is not installed changes nothing and is not reported. Call it before other threads use the locale.
///
/// @threads one at a time   @realtime I/O
QUORVIL_API void initLocale();
}

#endif
