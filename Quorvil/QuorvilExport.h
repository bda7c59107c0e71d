// QuorvilExport.h: marks what leaves the shared object
// Foundation

#ifndef QUORVIL_QUORVILEXPORT_H
#define QUORVIL_QUORVILEXPORT_H

/// Makes a class, function or object visible outside the shared object; everything without it stays inside.
/// Exceptions carry it too, so that one `catch` matches on both sides of the border.
#define QUORVIL_API __attribute__((visibility("default")))

#endif
