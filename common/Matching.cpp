#include "common/Matching.h"

#include <algorithm>

Matching::Matching(const Graph& g) : graph(&g) {
    const size_t n = g.size();
    mate.assign(n, -1);
    const auto vertexCount = int32_t(std::min<size_t>(n, size_t(INT32_MAX)));

    // Greedy start: most vertices of a mesh graph pair up here and are never
    // searched from. A vertex without neighbours has no augmenting path, so it
    // is not a candidate: on sparse graphs, where most vertices are isolated,
    // they cost one look at their list.
    std::vector<int32_t> candidates;
    for (int32_t v = 0; v < vertexCount; ++v) {
        if (mate[size_t(v)] != -1) continue;
        bool paired = false, connected = false;
        for (const int32_t w : g.adjacency[size_t(v)]) {
            if (w < 0 || w >= vertexCount) continue;
            connected = true;
            if (mate[size_t(w)] != -1) continue;
            mate[size_t(v)] = w;
            mate[size_t(w)] = v;
            paired = true;
            break;
        }
        if (!paired && connected) candidates.push_back(v);
    }
    if (candidates.empty()) return;
    nodes.assign(n, MatchingNode{0, -1, 0, 0});
    bridge.assign(n, std::pair<int32_t, int32_t>(0, 0));

    // A vertex with no augmenting path now never gets one later, so each
    // candidate is searched once.
    std::vector<int> path;
    for (const int32_t v : candidates) {
        if (mate[size_t(v)] != -1) continue;
        if (findAugmentingPath(v, path)) {
            for (size_t i = 0; i + 1 < path.size(); i += 2) {
                mate[size_t(path[i])] = path[i + 1];
                mate[size_t(path[i + 1])] = path[i];
            }
        }
        path.clear();
    }
}

Matching::~Matching() = default;

bool Matching::findAugmentingPath(int root, std::vector<int>& path) {
    ++searchStamp;
    nodes[size_t(root)] = MatchingNode{0, -1, root, searchStamp};
    queue.clear();
    queueHead = 0;
    queue.push_back(root);
    const auto vertexCount = int32_t(nodes.size());
    while (queueHead < queue.size()) {
        const int v = queue[queueHead++];
        for (const int32_t w : graph->adjacency[size_t(v)]) {
            if (w < 0 || w >= vertexCount) continue;
            if (examineEdge(root, v, w, path)) {
                queue.clear();
                queueHead = 0;
                return !path.empty();
            }
        }
    }
    return false;
}

int Matching::find(int v) {
    int r = v;
    while (nodes[size_t(r)].stamp == searchStamp && nodes[size_t(r)].base != r) r = nodes[size_t(r)].base;
    while (v != r) { // path compression
        const int next = nodes[size_t(v)].base;
        nodes[size_t(v)].base = r;
        v = next;
    }
    return r;
}

bool Matching::examineEdge(int root, int v, int w, std::vector<int>& path) {
    const int bv = find(v), bw = find(w);
    if (bv == bw) return false; // same blossom, self-loops included
    if (nodes[size_t(bw)].stamp != searchStamp) {
        const int m = mate[size_t(w)];
        if (m == -1) {
            path.push_back(w);
            findPath(v, root, path);
            return true;
        }
        // A vertex paired with itself through a self-loop has no partner to
        // continue the alternating path with.
        if (m == w) return false;
        extendTree(v, w);
        return false;
    }
    if (nodes[size_t(bw)].depth % 2 != 0) return false; // edge to an inner vertex

    // Both ends outer: a blossom closes at the nearest common tree ancestor.
    int a = v, b = w;
    while (a != b) {
        if (nodes[size_t(a)].depth <= nodes[size_t(b)].depth)
            b = nodes[size_t(b)].parent;
        else
            a = nodes[size_t(a)].parent;
        if (a < 0 || b < 0) return false; // not one tree: cannot happen for a symmetric graph
    }
    const int base = find(a);
    shrinkPath(base, v, w);
    shrinkPath(base, w, v);
    return false;
}

void Matching::extendTree(int v, int w) {
    const int m = mate[size_t(w)];
    const int32_t d = nodes[size_t(v)].depth;
    // The next odd depth above d: an inner vertex absorbed into a blossom keeps
    // its odd depth but is searched from like an outer one.
    nodes[size_t(w)] = MatchingNode{d + 1 + (d % 2), v, w, searchStamp};
    nodes[size_t(m)] = MatchingNode{nodes[size_t(w)].depth + 1, w, m, searchStamp};
    queue.push_back(m);
}

void Matching::shrinkPath(int base, int v, int w) {
    int x = find(v);
    while (x != base) {
        const int m = mate[size_t(x)];
        if (m < 0) return; // walked past the root: cannot happen for a symmetric graph
        // Merges the sets of x and of its mate into the blossom: each write
        // links the current root of base's set onward, and each find() sees
        // the links made before it, so the chain is right whichever of the
        // three sets already coincide. The last two writes make base the root.
        nodes[size_t(find(base))].base = find(x);
        nodes[size_t(find(base))].base = find(m);
        nodes[size_t(find(base))].base = base;
        nodes[size_t(base)].base = base;
        // The inner vertex now acts as an outer one; its bridge tells findPath
        // how to walk through the blossom.
        queue.push_back(m);
        bridge[size_t(m)] = std::pair<int32_t, int32_t>(v, w);
        x = find(nodes[size_t(m)].parent);
    }
}

// Appends the alternating path from s up to its tree ancestor t. The walk
// through a blossom (down from the bridge end, reversed) nests, so pending
// continuations sit on an explicit stack rather than the call stack.
void Matching::findPath(int s, int t, std::vector<int>& path) {
    pathStack.clear();
    const size_t limit = nodes.size() + 1;
    for (;;) {
        if (path.size() > limit) { // a malformed tree (asymmetric graph): give up
            path.clear();
            return;
        }
        if (s == t) {
            path.push_back(s);
            if (pathStack.empty()) return;
            const PathFrame frame = pathStack.back();
            pathStack.pop_back();
            std::reverse(path.begin() + std::ptrdiff_t(frame.start), path.end());
            s = frame.next;
            t = frame.target;
        } else if (nodes[size_t(s)].depth % 2 != 0) {
            path.push_back(s);
            pathStack.push_back(PathFrame{path.size(), bridge[size_t(s)].second, t});
            t = mate[size_t(s)];
            s = bridge[size_t(s)].first;
        } else {
            const int m = mate[size_t(s)];
            if (m < 0 || nodes[size_t(m)].parent < 0) {
                path.clear();
                return;
            }
            path.push_back(s);
            path.push_back(m);
            s = nodes[size_t(m)].parent;
        }
    }
}
