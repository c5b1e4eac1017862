#include "support/MatchingCertificate.h"

namespace testing_support {

size_t tutteBergeBound(const Graph& g, const std::vector<int32_t>& mate) {
    const int32_t n = int32_t(g.size());
    const auto partner = [&](int32_t v) { return mate[size_t(v)] == v ? -1 : mate[size_t(v)]; };
    const auto inRange = [n](int32_t v) { return v >= 0 && v < n; };

    // The forest: outer vertices at even depth, inner ones at odd depth.
    enum Label : uint8_t { kUnreached, kOuter, kInner };
    std::vector<Label> label(size_t(n), kUnreached);
    std::vector<int32_t> parent(size_t(n), -1), depth(size_t(n), 0), tree(size_t(n), -1), outer;
    for (int32_t v = 0; v < n; ++v)
        if (partner(v) == -1) label[size_t(v)] = kOuter, tree[size_t(v)] = v, outer.push_back(v);
    const auto attach = [&](int32_t child, int32_t above, Label l) {
        label[size_t(child)] = l;
        parent[size_t(child)] = above;
        depth[size_t(child)] = depth[size_t(above)] + 1;
        tree[size_t(child)] = tree[size_t(above)];
    };
    for (size_t next = 0; next < outer.size(); ++next) {
        const int32_t v = outer[next];
        for (const int32_t w : g.adjacency[size_t(v)]) {
            if (!inRange(w) || w == v) continue;
            if (label[size_t(w)] == kUnreached) { // matched: free vertices start outer
                const int32_t m = partner(w);
                attach(w, v, kInner);
                attach(m, w, kOuter);
                outer.push_back(m);
            } else if (label[size_t(w)] == kOuter && tree[size_t(w)] == tree[size_t(v)]) {
                // An odd cycle through the nearest common ancestor: its inner
                // vertices can end an even alternating path too.
                int32_t a = v, b = w;
                while (a != b) {
                    int32_t& deeper = depth[size_t(a)] >= depth[size_t(b)] ? a : b;
                    if (label[size_t(deeper)] == kInner) label[size_t(deeper)] = kOuter, outer.push_back(deeper);
                    deeper = parent[size_t(deeper)];
                }
            }
            // Outer ends in two trees would be an augmenting path: mate is
            // not maximum, and no U gives a bound as low as its size.
        }
    }

    // Components of G - U by union-find; U = the inner vertices.
    std::vector<int32_t> root(g.size()), size(g.size(), 1);
    for (int32_t v = 0; v < n; ++v) root[size_t(v)] = v;
    const auto find = [&](int32_t v) {
        while (root[size_t(v)] != v) v = root[size_t(v)] = root[size_t(root[size_t(v)])];
        return v;
    };
    size_t removed = 0;
    for (int32_t v = 0; v < n; ++v) {
        if (label[size_t(v)] == kInner) {
            ++removed;
            continue;
        }
        for (const int32_t w : g.adjacency[size_t(v)]) {
            if (!inRange(w) || label[size_t(w)] == kInner) continue;
            const int32_t a = find(v), b = find(w);
            if (a == b) continue;
            root[size_t(b)] = a;
            size[size_t(a)] += size[size_t(b)];
        }
    }
    size_t oddComponents = 0;
    for (int32_t v = 0; v < n; ++v)
        if (label[size_t(v)] != kInner && find(v) == v && size[size_t(v)] % 2 == 1) ++oddComponents;
    return (size_t(n) + removed - oddComponents) / 2;
}

} // namespace testing_support
