#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Undirected graph as adjacency lists over vertices 0 .. n-1. Every edge is
// listed at both of its ends. List order is significant: the matching pairs a
// vertex with its first free neighbour in list order.
struct Graph {
    std::vector<std::vector<int32_t>> adjacency;

    Graph() = default;
    explicit Graph(size_t vertexCount) : adjacency(vertexCount) {}

    size_t size() const { return adjacency.size(); }
    void resize(size_t vertexCount) { adjacency.resize(vertexCount); }

    // u and v must be below size().
    void addEdge(int32_t u, int32_t v) {
        adjacency[size_t(u)].push_back(v);
        adjacency[size_t(v)].push_back(u);
    }
};
