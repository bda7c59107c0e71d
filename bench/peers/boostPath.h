// Boost.Filesystem's normal form of a path.

#ifndef QUORVIL_BENCH_PEERS_BOOSTPATH_H
#define QUORVIL_BENCH_PEERS_BOOSTPATH_H

#include <boost/filesystem/path.hpp>

#include <string>

namespace bench {

using BoostPath = boost::filesystem::path;

inline std::string normal(const BoostPath& path)
{
    return path.lexically_normal().native();
}

} // namespace bench

#endif
