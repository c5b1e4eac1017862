#include "support/ReferenceMatching.h"

#include <algorithm>

namespace testing_support {

ReferenceMatching::ReferenceMatching(const Graph& g)
    : mate(g.size(), -1), graph(g), nodes(g.size()), bridge(g.size(), {0, 0}) {
    std::vector<int> candidates;
    for (int v = 0; v < int(g.size()); ++v) {
        if (mate[size_t(v)] != -1) continue;
        bool paired = false;
        for (const int w : g.adjacency[size_t(v)])
            if (valid(w) && mate[size_t(w)] == -1) {
                mate[size_t(v)] = w;
                mate[size_t(w)] = v;
                paired = true;
                break;
            }
        if (!paired) candidates.push_back(v);
    }
    std::vector<int> path;
    for (const int v : candidates) {
        if (mate[size_t(v)] == -1 && findAugmentingPath(v, path))
            for (size_t i = 0; i + 1 < path.size(); i += 2) {
                mate[size_t(path[i])] = path[i + 1];
                mate[size_t(path[i + 1])] = path[i];
            }
        path.clear();
    }
}

bool ReferenceMatching::findAugmentingPath(int root, std::vector<int>& path) {
    ++searchStamp;
    nodes[size_t(root)] = Node{0, -1, root, searchStamp};
    queue.push_back(root);
    while (!queue.empty()) {
        const int v = queue.front();
        queue.pop_front();
        for (const int w : graph.adjacency[size_t(v)])
            if (valid(w) && examineEdge(root, v, w, path)) {
                queue.clear();
                return true;
            }
    }
    return false;
}

int ReferenceMatching::find(int v) {
    Node& n = nodes[size_t(v)];
    if (n.stamp != searchStamp || n.base == v) return v;
    n.base = find(n.base);
    return n.base;
}

bool ReferenceMatching::examineEdge(int root, int v, int w, std::vector<int>& path) {
    const int bv = find(v), bw = find(w);
    if (bv == bw) return false;
    if (nodes[size_t(bw)].stamp != searchStamp) {
        if (mate[size_t(w)] == -1) {
            path.push_back(w);
            findPath(v, root, path);
            return true;
        }
        if (mate[size_t(w)] != w) extendTree(v, w); // a self-paired vertex leads nowhere
        return false;
    }
    if (nodes[size_t(bw)].depth % 2 != 0) return false;
    int a = v, b = w;
    while (a != b) {
        if (nodes[size_t(a)].depth <= nodes[size_t(b)].depth)
            b = nodes[size_t(b)].parent;
        else
            a = nodes[size_t(a)].parent;
    }
    const int base = find(a);
    shrinkPath(base, v, w);
    shrinkPath(base, w, v);
    return false;
}

void ReferenceMatching::extendTree(int v, int w) {
    const int m = mate[size_t(w)];
    const int d = nodes[size_t(v)].depth;
    nodes[size_t(w)] = Node{d + 1 + d % 2, v, w, searchStamp};
    nodes[size_t(m)] = Node{nodes[size_t(w)].depth + 1, w, m, searchStamp};
    queue.push_back(m);
}

void ReferenceMatching::shrinkPath(int base, int v, int w) {
    int x = find(v);
    while (x != base) {
        const int m = mate[size_t(x)];
        nodes[size_t(find(base))].base = find(x);
        nodes[size_t(find(base))].base = find(m);
        nodes[size_t(find(base))].base = base;
        nodes[size_t(base)].base = base;
        queue.push_back(m);
        bridge[size_t(m)] = {v, w};
        x = find(nodes[size_t(m)].parent);
    }
}

void ReferenceMatching::findPath(int s, int t, std::vector<int>& path) {
    if (s == t) {
        path.push_back(s);
    } else if (nodes[size_t(s)].depth % 2 != 0) {
        const auto [a, b] = bridge[size_t(s)];
        path.push_back(s);
        const size_t length = path.size();
        findPath(a, mate[size_t(s)], path);
        std::reverse(path.begin() + long(length), path.end());
        findPath(b, t, path);
    } else {
        path.push_back(s);
        path.push_back(mate[size_t(s)]);
        findPath(nodes[size_t(mate[size_t(s)])].parent, t, path);
    }
}

} // namespace testing_support
