#include "Quorvil/NotYetImplemented.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/ThreadSafeStream.h"

#include <ostream>

void nyi::nyi(const char* what)
{
    safeCerr << ">>> NOT YET IMPLEMENTED: " << what << std::endl;
    __assert_fail("false", "Quorvil/NotYetImplemented", 27, "void nyi::nyi(const char*)");
}
