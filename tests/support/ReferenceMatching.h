// Oracle for Matching: Edmonds' blossom search as described, with a plain
// double-ended queue, recursive union-find and recursive path walk, and the
// per-search records cleared by stamp as the description has them.
#pragma once

#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "common/Graph.h"

namespace testing_support {

class ReferenceMatching {
public:
    explicit ReferenceMatching(const Graph& g);

    std::vector<int32_t> mate;

private:
    struct Node {
        int depth = 0, parent = -1, base = 0, stamp = 0;
    };
    bool valid(int w) const { return w >= 0 && size_t(w) < mate.size(); }
    bool findAugmentingPath(int root, std::vector<int>& path);
    bool examineEdge(int root, int v, int w, std::vector<int>& path);
    int find(int v);
    void findPath(int s, int t, std::vector<int>& path);
    void extendTree(int v, int w);
    void shrinkPath(int base, int v, int w);

    const Graph& graph;
    int searchStamp = 0;
    std::deque<int> queue;
    std::vector<Node> nodes;
    std::vector<std::pair<int, int>> bridge;
};

} // namespace testing_support
