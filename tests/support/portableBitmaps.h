// portableBitmaps.h: the bitmaps twice, as the library has them and with the steps that every machine can take

#ifndef QUORVIL_TESTS_PORTABLEBITMAPS_H
#define QUORVIL_TESTS_PORTABLEBITMAPS_H

#include "Quorvil/Bitmaps.h"

#include "Quorvil/QuorvilAssert.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <functional>
#include <limits>
#include <type_traits>
#include <utility>

// The source compiled once more, as `portable::Bitmap`. What it includes stands above, under its own name.
#undef QUORVIL_BITMAPS_H
#define QUORVIL_PORTABLE_BLIT
#define bmp portable
#include "Quorvil/Bitmaps.cpp"
#undef bmp
#undef QUORVIL_PORTABLE_BLIT

#endif
