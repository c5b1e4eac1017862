#include "common/AsyncLoader.h"

#include "common/Checked.h"
#include "common/ErrorBoundedReducer.h"
#include "common/Indices.h"
#include "common/MeshReducer.h"
#include "common/Occluder.h"
#include "common/OccluderGroup.h"
#include "common/QuadDecomposition.h"

#include <chrono>
#include <cmath>

namespace common {

namespace {

// Below this many vertices a level is not worth reducing: the mesh itself is
// baked and no coarser level follows.
constexpr float kMinReducedVertices = 300.0f;
// 16-bit indices reach no further, so vertices past this count are never used.
constexpr uint32_t kMaxIndexedVertices = 65536;
// Whole batches of four quads for the packer.
constexpr size_t kBatchIndices = 16;

uint32_t usableVertexCount(const OccluderRaw& record) {
    return record.vertexCount < kMaxIndexedVertices ? record.vertexCount : kMaxIndexedVertices;
}

} // namespace

// --- pending set ---------------------------------------------------------

size_t AsyncLoader::MeshSet::slotOf(const float* vertices, const uint16_t* indices) const {
    uint64_t h = uint64_t(reinterpret_cast<uintptr_t>(vertices)) * 0x9E3779B97F4A7C15ull;
    h ^= uint64_t(reinterpret_cast<uintptr_t>(indices)) + (h >> 31);
    h *= 0xFF51AFD7ED558CCDull;
    return size_t(h ^ (h >> 32)) & (slots.size() - 1);
}

bool AsyncLoader::MeshSet::contains(const float* vertices, const uint16_t* indices) const {
    if (slots.empty() || vertices == nullptr) return false;
    for (size_t i = slotOf(vertices, indices);; i = (i + 1) & (slots.size() - 1)) {
        if (slots[i].vertices == nullptr) return false;
        if (slots[i].vertices == vertices && slots[i].indices == indices) return true;
    }
}

void AsyncLoader::MeshSet::insert(const float* vertices, const uint16_t* indices) {
    if (vertices == nullptr || contains(vertices, indices)) return;
    if (checkedMul<size_t>(checkedAdd<size_t>(count, 1), 2) > slots.size()) grow(); // at most half full
    size_t i = slotOf(vertices, indices);
    while (slots[i].vertices != nullptr) i = (i + 1) & (slots.size() - 1);
    slots[i] = Key{vertices, indices};
    ++count;
}

void AsyncLoader::MeshSet::erase(const float* vertices, const uint16_t* indices) {
    if (!contains(vertices, indices)) return;
    const size_t mask = slots.size() - 1;
    size_t hole = slotOf(vertices, indices);
    while (slots[hole].vertices != vertices || slots[hole].indices != indices) hole = (hole + 1) & mask;
    // Backward shift: pull later members of the run into the hole when their
    // home slot does not lie between the hole and them, so no probe run breaks.
    for (size_t i = (hole + 1) & mask; slots[i].vertices != nullptr; i = (i + 1) & mask) {
        const size_t home = slotOf(slots[i].vertices, slots[i].indices);
        if (((i - home) & mask) >= ((i - hole) & mask)) {
            slots[hole] = slots[i];
            hole = i;
        }
    }
    slots[hole] = Key{nullptr, nullptr};
    --count;
}

void AsyncLoader::MeshSet::grow() {
    std::vector<Key> old(slots.empty() ? size_t(16) : checkedMul<size_t>(slots.size(), 2), Key{nullptr, nullptr});
    old.swap(slots);
    count = 0;
    for (const Key& key : old)
        if (key.vertices != nullptr) insert(key.vertices, key.indices);
}

// --- thread control ------------------------------------------------------

AsyncLoader::AsyncLoader() { thread = std::thread(&AsyncLoader::run, this); }

AsyncLoader::~AsyncLoader() { ensureCompletion(); }

void AsyncLoader::setCacheMgr(std::weak_ptr<CacheManager> cache) {
    std::lock_guard<std::mutex> lock(mutex);
    cacheManager = std::move(cache);
}

void AsyncLoader::addOccluder(const OccluderRaw& record) {
    if (record.vertices == nullptr) return;
    std::lock_guard<std::mutex> lock(mutex);
    if (pending.contains(record.vertices, record.indices)) return;
    queue.push_back(record);
    pending.insert(record.vertices, record.indices);
}

bool AsyncLoader::isEmpty() const {
    std::lock_guard<std::mutex> lock(mutex);
    return queueHead == queue.size();
}

size_t AsyncLoader::queueSize() const {
    std::lock_guard<std::mutex> lock(mutex);
    return queue.size() - queueHead;
}

// The flags change under the lock so that the worker cannot test them and
// then miss the notification on its way into the wait.
void AsyncLoader::continueThread() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        paused = false;
    }
    condition.notify_all();
}

void AsyncLoader::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopRequested = true;
        paused = false;
    }
    condition.notify_all();
}

void AsyncLoader::ensureCompletion() {
    stop();
    if (thread.joinable()) thread.join();
}

void AsyncLoader::run() {
    OccluderRaw record;
    while (!stopRequested) {
        if (paused) {
            std::unique_lock<std::mutex> lock(mutex);
            condition.wait(lock, [this] { return !paused || stopRequested; });
            continue;
        }
        bool haveWork;
        {
            std::lock_guard<std::mutex> lock(mutex);
            haveWork = queueHead < queue.size();
            if (haveWork) record = queue[queueHead];
        }
        if (!haveWork) {
            // Drained: rest 10 ms, then wait for a frame start that brings work.
            paused = true;
            std::unique_lock<std::mutex> lock(mutex);
            condition.wait_for(lock, std::chrono::milliseconds(10), [this] { return stopRequested.load(); });
            continue;
        }
        // A refused mesh stays pending for good: queueing it again every frame
        // would only be refused again.
        const bool accepted = bakeable(record);
        if (accepted) load(record);
        std::lock_guard<std::mutex> lock(mutex);
        ++queueHead;
        if (2 * queueHead >= queue.size()) {
            queue.erase(queue.begin(), queue.begin() + std::ptrdiff_t(queueHead)); // keeps the capacity
            queueHead = 0;
        }
        if (accepted) pending.erase(record.vertices, record.indices);
    }
}

// --- baking --------------------------------------------------------------

bool AsyncLoader::bakeable(const OccluderRaw& record) {
    if (record.vertices == nullptr || record.indices == nullptr || record.vertexCount == 0) return false;
    const uint32_t used = record.indexCount / 3 * 3;
    return used != 0 && largestIndex(record.indices, used) < record.vertexCount;
}

bool AsyncLoader::levelMesh(const OccluderRaw& record, unsigned lod, std::vector<float4>& vertices,
                            std::vector<uint32_t>& indices) {
    vertices.clear();
    indices.clear();
    const OccluderGroup::LODParam param = OccluderGroup::getLODParam(lod);
    const float target = param.ratio * float(record.vertexCount);
    const uint32_t vertexCount = usableVertexCount(record);
#if ZELK_CONSERVATIVE
    // Conservative levels keep occluders whole: every level is reduced within
    // an error bound that suits the screen size it is drawn at, open borders
    // stay in place, and flat regions fold down to a few triangles. The number
    // of levels follows the same rule as below.
    ErrorBoundedReducer::level(record.vertices, record.indices, vertexCount, record.indexCount, lod, vertices, indices);
    return target < kMinReducedVertices;
#endif
    if (target < kMinReducedVertices) {
        vertices.resize(vertexCount);
        for (uint32_t v = 0; v < vertexCount; ++v) {
            const float* p = record.vertices + 3 * size_t(v);
            vertices[v] = make4(p[0], p[1], p[2], 1.0f);
        }
        indices.assign(record.indices, record.indices + size_t(record.indexCount / 3) * 3);
        return true;
    }
    // The target counts vertices but is handed over as a triangle count,
    // which leaves each level about half the triangles its name suggests.
    MeshReducer::reduce(record.vertices, record.indices, vertexCount, record.indexCount, vertices, indices,
                        uint32_t(target), param.reducerParameter, true);
    return false;
}

std::shared_ptr<Occluder> AsyncLoader::bakeLevel(const std::vector<float4>& vertices,
                                                 const std::vector<uint32_t>& indices, std::vector<float4>& expanded) {
    std::vector<uint32_t> quads = QuadDecomposition::decompose(indices, vertices);
    if (!quads.empty()) quads.resize((quads.size() + kBatchIndices - 1) / kBatchIndices * kBatchIndices, quads[0]);

    float4 lo = zero4(), hi = zero4();
    if (!vertices.empty()) {
        lo = splat(INFINITY);
        hi = splat(-INFINITY);
        for (const float4& v : vertices) {
            lo = min(lo, v);
            hi = max(hi, v);
        }
    }
    expanded.resize(quads.size());
    for (size_t i = 0; i < quads.size(); ++i) expanded[i] = vertices[quads[i]];
    return Occluder::bake(expanded, lo, hi);
}

void AsyncLoader::load(const OccluderRaw& record) {
    std::weak_ptr<CacheManager> cacheRef;
    {
        std::lock_guard<std::mutex> lock(mutex);
        cacheRef = cacheManager;
    }
    if (cacheRef.expired() || !bakeable(record)) return;

    const auto group = std::make_shared<OccluderGroup>();
    std::vector<float4> levelVertices, expanded; // kept across levels for their storage
    std::vector<uint32_t> levelIndices;
    for (unsigned lod = 0; lod < 3; ++lod) {
        if (stopRequested) return; // the cache dies with the engine: nothing to finish
        const bool last = levelMesh(record, lod, levelVertices, levelIndices);

        group->addOccluder(bakeLevel(levelVertices, levelIndices, expanded), lod);
        if (last) break;
    }
    if (const std::shared_ptr<CacheManager> cache = cacheRef.lock())
        cache->cache(record.vertices, record.indices, group);
}

} // namespace common
