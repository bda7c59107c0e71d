#include "Quorvil/QuorvilExport.h"
