// Reduction to the loader's three level-of-detail targets on real meshes,
// beside meshoptimizer's simplifier driven to the same triangle counts, and
// the conservative build's error-bounded simplifier at its own level targets
// (per level, and all levels of a mesh as the loader makes them, beside the
// default reducer's). Both
// report the triangles they reach and two distances over the input's
// bounding-box diagonal: maxDist, the largest from an output vertex to the
// input surface (0 for a simplifier that keeps input vertices), and maxBack,
// the largest from an input vertex to the output surface.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "common/ErrorBoundedReducer.h"
#include "common/MeshReducer.h"
#include "support/MeshLoader.h"

#if defined(ZELK_BENCH_HAVE_MESHOPT)
#include <meshoptimizer.h>
#endif

namespace {

const float kRatios[3] = {0.55f, 0.35f, 0.15f};

const std::vector<testing_support::NamedMesh>& meshes() {
    static const std::vector<testing_support::NamedMesh> loaded = testing_support::loadRealMeshes();
    return loaded;
}

struct D3 {
    double x, y, z;
    D3 operator-(D3 o) const { return {x - o.x, y - o.y, z - o.z}; }
    D3 operator+(D3 o) const { return {x + o.x, y + o.y, z + o.z}; }
    D3 operator*(double s) const { return {x * s, y * s, z * s}; }
    double dot(D3 o) const { return x * o.x + y * o.y + z * o.z; }
    D3 cross(D3 o) const { return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x}; }
};

// Closest point on triangle abc to p (Ericson's region tests).
double triangleDistance(D3 p, D3 a, D3 b, D3 c) {
    const D3 ab = b - a, ac = c - a, ap = p - a;
    const double d1 = ab.dot(ap), d2 = ac.dot(ap);
    const auto dist = [&](D3 q) { return std::sqrt((p - q).dot(p - q)); };
    if (d1 <= 0 && d2 <= 0) return dist(a);
    const D3 bp = p - b;
    const double d3 = ab.dot(bp), d4 = ac.dot(bp);
    if (d3 >= 0 && d4 <= d3) return dist(b);
    const double vc = d1 * d4 - d3 * d2;
    if (vc <= 0 && d1 >= 0 && d3 <= 0) return dist(a + ab * (d1 / (d1 - d3)));
    const D3 cp = p - c;
    const double d5 = ab.dot(cp), d6 = ac.dot(cp);
    if (d6 >= 0 && d5 <= d6) return dist(c);
    const double vb = d5 * d2 - d1 * d6;
    if (vb <= 0 && d2 >= 0 && d6 <= 0) return dist(a + ac * (d2 / (d2 - d6)));
    const double va = d3 * d6 - d5 * d4;
    if (va <= 0 && d4 - d3 >= 0 && d5 - d6 >= 0) return dist(b + (c - b) * ((d4 - d3) / ((d4 - d3) + (d5 - d6))));
    const double sum = va + vb + vc;
    if (!(sum > 0)) return std::min({dist(a), dist(b), dist(c)}); // degenerate
    return dist(a + ab * (vb / sum) + ac * (vc / sum));
}

double diagonalOf(const testing_support::Mesh& m) {
    D3 lo{INFINITY, INFINITY, INFINITY}, hi{-INFINITY, -INFINITY, -INFINITY};
    for (size_t i = 0; i < m.vertices.size(); i += 3) {
        lo = {std::min<double>(lo.x, m.vertices[i]), std::min<double>(lo.y, m.vertices[i + 1]),
              std::min<double>(lo.z, m.vertices[i + 2])};
        hi = {std::max<double>(hi.x, m.vertices[i]), std::max<double>(hi.y, m.vertices[i + 1]),
              std::max<double>(hi.z, m.vertices[i + 2])};
    }
    return std::sqrt((hi - lo).dot(hi - lo));
}

std::vector<D3> pointsOf(const testing_support::Mesh& m) {
    std::vector<D3> points;
    for (size_t i = 0; i < m.vertices.size(); i += 3)
        points.push_back(D3{m.vertices[i], m.vertices[i + 1], m.vertices[i + 2]});
    return points;
}

// Largest distance from the points to the mesh surface over `scale`. Triangles are binned by their boxes into a uniform
// grid; each point searches shells of cells outwards until the next shell lies further than the best triangle found.
double maxDistance(const testing_support::Mesh& m, const std::vector<D3>& points, double scale) {
    D3 lo{INFINITY, INFINITY, INFINITY}, hi{-INFINITY, -INFINITY, -INFINITY};
    const auto vertex = [&](size_t i) { return D3{m.vertices[3 * i], m.vertices[3 * i + 1], m.vertices[3 * i + 2]}; };
    for (size_t i = 0; i < m.vertexCount(); ++i) {
        const D3 v = vertex(i);
        lo = {std::min(lo.x, v.x), std::min(lo.y, v.y), std::min(lo.z, v.z)};
        hi = {std::max(hi.x, v.x), std::max(hi.y, v.y), std::max(hi.z, v.z)};
    }
    const D3 extent = hi - lo;
    const int n = 32;
    const double cell = std::max({extent.x, extent.y, extent.z}) / n + 1e-12;
    const auto cellOf = [&](double v, double origin) { return std::clamp(int((v - origin) / cell), 0, n - 1); };
    std::vector<std::vector<uint32_t>> grid(size_t(n) * n * n);
    for (size_t t = 0; t < m.indices.size() / 3; ++t) {
        const D3 a = vertex(m.indices[3 * t]), b = vertex(m.indices[3 * t + 1]), c = vertex(m.indices[3 * t + 2]);
        const int x0 = cellOf(std::min({a.x, b.x, c.x}), lo.x), x1 = cellOf(std::max({a.x, b.x, c.x}), lo.x);
        const int y0 = cellOf(std::min({a.y, b.y, c.y}), lo.y), y1 = cellOf(std::max({a.y, b.y, c.y}), lo.y);
        const int z0 = cellOf(std::min({a.z, b.z, c.z}), lo.z), z1 = cellOf(std::max({a.z, b.z, c.z}), lo.z);
        for (int x = x0; x <= x1; ++x)
            for (int y = y0; y <= y1; ++y)
                for (int z = z0; z <= z1; ++z) grid[(size_t(x) * n + size_t(y)) * n + size_t(z)].push_back(uint32_t(t));
    }
    double worst = 0;
    std::vector<uint32_t> seen(m.indices.size() / 3, UINT32_MAX);
    for (size_t i = 0; i < points.size(); ++i) {
        const D3 p = points[i];
        const int px = cellOf(p.x, lo.x), py = cellOf(p.y, lo.y), pz = cellOf(p.z, lo.z);
        double best = INFINITY;
        for (int r = 0; r < n; ++r) {
            // Every point outside shells 0 .. r - 1 is at least (r - 1) cells away.
            if (r > 0 && (r - 1) * cell > best) break;
            for (int x = px - r; x <= px + r; ++x)
                for (int y = py - r; y <= py + r; ++y)
                    for (int z = pz - r; z <= pz + r; ++z) {
                        if (std::max({std::abs(x - px), std::abs(y - py), std::abs(z - pz)}) != r) continue;
                        if (x < 0 || y < 0 || z < 0 || x >= n || y >= n || z >= n) continue;
                        for (const uint32_t t : grid[(size_t(x) * n + size_t(y)) * n + size_t(z)]) {
                            if (seen[t] == i) continue;
                            seen[t] = uint32_t(i);
                            best = std::min(best,
                                            triangleDistance(p, vertex(m.indices[3 * t]), vertex(m.indices[3 * t + 1]),
                                                             vertex(m.indices[3 * t + 2])));
                        }
                    }
        }
        worst = std::max(worst, best);
    }
    return worst / scale;
}

void reduceBench(benchmark::State& state, size_t meshIndex, float ratio) {
    const testing_support::Mesh& m = meshes()[meshIndex].mesh;
    const auto target = uint32_t(ratio * float(m.vertexCount())); // as the loader truncates it
    std::vector<common::float4> vertices;
    std::vector<uint32_t> indices;
    for (auto _ : state) {
        vertices.clear();
        indices.clear();
        common::MeshReducer::reduce(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(), vertices,
                                    indices, target, 35.0f, true);
        benchmark::DoNotOptimize(indices.data());
    }
    if (indices.empty() || indices.size() % 3 != 0) state.SkipWithError("no output");
    testing_support::Mesh reduced;
    for (const common::float4& v : vertices)
        reduced.vertices.insert(reduced.vertices.end(), {common::lane<0>(v), common::lane<1>(v), common::lane<2>(v)});
    reduced.indices.assign(indices.begin(), indices.end()); // at most as many vertices as the input
    state.counters["maxDist"] = maxDistance(m, pointsOf(reduced), diagonalOf(m));
    state.counters["maxBack"] = maxDistance(reduced, pointsOf(m), diagonalOf(m));
    state.counters["inTris"] = double(m.indexCount() / 3);
    state.counters["target"] = double(target);
    state.counters["outTris"] = double(indices.size() / 3);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(m.indexCount() / 3));
}

void reportOutput(benchmark::State& state, const testing_support::Mesh& m, const std::vector<common::float4>& vertices,
                  const std::vector<uint32_t>& indices) {
    testing_support::Mesh reduced;
    for (const common::float4& v : vertices)
        reduced.vertices.insert(reduced.vertices.end(), {common::lane<0>(v), common::lane<1>(v), common::lane<2>(v)});
    reduced.indices.assign(indices.begin(), indices.end());
    state.counters["maxDist"] = maxDistance(m, pointsOf(reduced), diagonalOf(m));
    state.counters["maxBack"] = maxDistance(reduced, pointsOf(m), diagonalOf(m));
    state.counters["inTris"] = double(m.indexCount() / 3);
    state.counters["outTris"] = double(indices.size() / 3);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(m.indexCount() / 3));
}

void boundedBench(benchmark::State& state, size_t meshIndex, unsigned lod) {
    const testing_support::Mesh& m = meshes()[meshIndex].mesh;
    const common::ErrorBoundedReducer::Target target =
        common::ErrorBoundedReducer::levelTarget(lod, m.indexCount() / 3);
    std::vector<common::float4> vertices;
    std::vector<uint32_t> indices;
    for (auto _ : state) {
        common::ErrorBoundedReducer::reduce(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(),
                                            target, vertices, indices);
        benchmark::DoNotOptimize(indices.data());
    }
    if (indices.empty()) state.SkipWithError("no output");
    reportOutput(state, m, vertices, indices);
    state.counters["target"] = double(target.triangles);
}

// Every level of one mesh, as the loader makes them: the documented reducer's
// levels stop at the first target under 300 (that level is the mesh itself,
// not timed here); the conservative build makes all three in one run.
void levelsBench(benchmark::State& state, size_t meshIndex, bool bounded) {
    const testing_support::Mesh& m = meshes()[meshIndex].mesh;
    std::vector<common::float4> vertices, levelVertices[3];
    std::vector<uint32_t> indices, levelIndices[3];
    common::ErrorBoundedReducer::Target targets[3];
    for (unsigned lod = 0; lod < 3; ++lod)
        targets[lod] = common::ErrorBoundedReducer::levelTarget(lod, m.indexCount() / 3);
    size_t total = 0;
    for (auto _ : state) {
        total = 0;
        if (bounded) // all levels in one run
            common::ErrorBoundedReducer::reduceLevels(m.vertices.data(), m.indices.data(), m.vertexCount(),
                                                      m.indexCount(), targets, 3, levelVertices, levelIndices);
        for (unsigned lod = 0; lod < 3; ++lod) {
            const float target = kRatios[lod] * float(m.vertexCount());
            if (bounded) {
                total += levelIndices[lod].size() / 3;
            } else if (target >= 300.0f) {
                vertices.clear();
                indices.clear();
                common::MeshReducer::reduce(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(),
                                            vertices, indices, uint32_t(target), 35.0f, true);
                total += indices.size() / 3;
            }
            if (target < 300.0f) break;
        }
        benchmark::DoNotOptimize(total);
    }
    state.counters["inTris"] = double(m.indexCount() / 3);
    state.counters["levelTris"] = double(total);
}

#if defined(ZELK_BENCH_HAVE_MESHOPT)
void meshoptBench(benchmark::State& state, size_t meshIndex, float ratio) {
    const testing_support::Mesh& m = meshes()[meshIndex].mesh;
    const auto target = uint32_t(ratio * float(m.vertexCount()));
    const std::vector<unsigned> in(m.indices.begin(), m.indices.end());
    std::vector<unsigned> out(in.size());
    size_t count = 0;
    for (auto _ : state) {
        // Error limit 1 (the whole extent): only the triangle count stops it.
        count = meshopt_simplify(out.data(), in.data(), in.size(), m.vertices.data(), m.vertexCount(),
                                 3 * sizeof(float), size_t(target) * 3, 1.0f, 0, nullptr);
        benchmark::DoNotOptimize(out.data());
    }
    // The output keeps input vertices: measure the ones it still uses.
    std::vector<bool> used(m.vertexCount(), false);
    for (size_t i = 0; i < count; ++i) used[out[i]] = true;
    std::vector<D3> points;
    for (size_t v = 0; v < used.size(); ++v)
        if (used[v]) points.push_back(D3{m.vertices[3 * v], m.vertices[3 * v + 1], m.vertices[3 * v + 2]});
    state.counters["maxDist"] = maxDistance(m, points, diagonalOf(m));
    testing_support::Mesh reduced{m.vertices, std::vector<uint16_t>(out.begin(), out.begin() + std::ptrdiff_t(count))};
    state.counters["maxBack"] = maxDistance(reduced, pointsOf(m), diagonalOf(m));
    state.counters["inTris"] = double(in.size() / 3);
    state.counters["target"] = double(target);
    state.counters["outTris"] = double(count / 3);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(in.size() / 3));
}
#endif

int registerAll() {
    for (size_t i = 0; i < meshes().size(); ++i) {
        const testing_support::Mesh& m = meshes()[i].mesh;
        if (m.vertexCount() >= 65536) continue;
        const std::string name = "/" + meshes()[i].name;
        benchmark::RegisterBenchmark(("BM_MeshReducer_levels" + name).c_str(), levelsBench, i, false)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("BM_ErrorBoundedReducer_levels" + name).c_str(), levelsBench, i, true)
            ->Unit(benchmark::kMillisecond);
        for (unsigned lod = 0; lod < 3; ++lod)
            benchmark::RegisterBenchmark(("BM_ErrorBoundedReducer_reduce" + name + "/" + std::to_string(lod)).c_str(),
                                         boundedBench, i, lod)
                ->Unit(benchmark::kMillisecond);
        for (const float ratio : kRatios) {
            if (ratio * float(m.vertexCount()) < 300.0f) continue; // the loader does not reduce these
            const std::string suffix = "/" + meshes()[i].name + "/" + std::to_string(int(ratio * 100 + 0.5f));
            benchmark::RegisterBenchmark(("BM_MeshReducer_reduce" + suffix).c_str(), reduceBench, i, ratio)
                ->Unit(benchmark::kMillisecond);
#if defined(ZELK_BENCH_HAVE_MESHOPT)
            benchmark::RegisterBenchmark(("BM_Meshopt_simplify" + suffix).c_str(), meshoptBench, i, ratio)
                ->Unit(benchmark::kMillisecond);
#endif
        }
    }
    return 0;
}

const int registered = registerAll();

} // namespace
