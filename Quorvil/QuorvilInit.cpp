#include "Quorvil/QuorvilInit.h"

#include <clocale>

void initLocale()
{
    // Both results are unused on purpose: a system without the locale stays as it is.
    std::setlocale(LC_ALL, "de_DE.UTF-8");
    std::setlocale(LC_NUMERIC, "en_US.UTF-8");
}
