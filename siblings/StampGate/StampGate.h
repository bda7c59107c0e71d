// StampGate.h: stand-in of the stamp library
// Sibling library, on nothing

#ifndef QUORVIL_SIBLINGS_STAMPGATE_H
#define QUORVIL_SIBLINGS_STAMPGATE_H

extern "C" {

/// Takes a stamp number. The real library checks it; the stand-in does not look at it.
///
/// @param stamp  Quorvil passes 52, once, before any object of its own exists
/// @return 0; the caller relies on the return alone
/// @threads any   @realtime bounded
__attribute__((visibility("default"))) int stampGate(int stamp);
}

#endif
