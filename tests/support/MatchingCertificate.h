// Proof that a matching is maximum without trusting the code that found it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/Graph.h"

namespace testing_support {

// An upper bound on the size of every matching of g (self-loops and indices
// out of range ignored), by the Tutte-Berge formula: for any vertex set U,
// no matching has more than (n + |U| - odd(G - U)) / 2 pairs, odd(G - U)
// being the number of components of odd size left when U is removed. The
// bound holds whatever U is; mate only guides the choice of U. U is the set
// of inner vertices of an alternating forest grown from the vertices mate
// leaves free (a vertex paired with itself counts as free), with every odd
// cycle the forest closes turned outer: when mate is maximum that is the
// Gallai-Edmonds set and the bound equals mate's pair count, so equality
// proves mate maximum. mate must be a symmetric pairing.
size_t tutteBergeBound(const Graph& g, const std::vector<int32_t>& mate);

} // namespace testing_support
