#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "common/Graph.h"

// Per-vertex record of the search tree. A record whose stamp is not the
// current search number counts as absent, so nothing is cleared between
// searches.
struct MatchingNode {
    int32_t depth;  // even: outer vertex, odd: inner vertex
    int32_t parent; // -1 at the root
    int32_t base;   // union-find link towards the blossom base
    int32_t stamp;  // search that wrote this record
};

// Maximum-cardinality matching of a general graph by Edmonds' blossom
// algorithm: a greedy start, then one breadth-first search for an augmenting
// path from every vertex the greedy pass left free. Blossoms are never
// contracted; membership is a union-find over their bases.
//
// The whole computation runs in the constructor. The result is `mate`: for
// every vertex its partner, or -1 when it is free; mate[mate[v]] == v. A
// self-loop lets the greedy pass pair a vertex with itself (mate[v] == v); the
// searches never continue through such a vertex. Neighbour indices outside
// 0 .. n-1 are ignored.
class Matching {
public:
    explicit Matching(const Graph& g);
    ~Matching();

    Matching(const Matching&) = delete;
    Matching& operator=(const Matching&) = delete;

private:
    bool findAugmentingPath(int root, std::vector<int>& path);
    bool examineEdge(int root, int v, int w, std::vector<int>& path);
    int find(int v);
    void findPath(int s, int t, std::vector<int>& path);
    void extendTree(int v, int w);
    void shrinkPath(int base, int v, int w);

    int32_t searchStamp = 0;
    const Graph* graph;
    // First-in first-out queue of outer vertices; a vector with a read cursor,
    // emptied at the start of every search.
    std::vector<int32_t> queue;
    size_t queueHead = 0;

public:
    std::vector<int32_t> mate; // the result, read-only for callers

private:
    std::vector<MatchingNode> nodes;
    // For an inner vertex absorbed into a blossom: the ends of the edge that
    // closed the blossom, as seen from this vertex's side.
    std::vector<std::pair<int32_t, int32_t>> bridge;

    struct PathFrame {
        size_t start;   // where the reversed segment begins
        int32_t next;   // continue from here ...
        int32_t target; // ... up to this ancestor
    };
    std::vector<PathFrame> pathStack;
};
