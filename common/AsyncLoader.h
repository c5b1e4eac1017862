#pragma once

#include "common/CacheManager.h"
#include "common/OccluderRaw.h"
#include "common/Simd.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace common {

// The background thread that bakes rigid meshes: up to three levels of
// detail, each reduced, paired into quads and packed, collected in a group and
// stored in the cache. The render thread only queues meshes and wakes the
// worker; the one lock it shares with the worker is held for queue edits,
// never while a mesh is baked.
class AsyncLoader {
public:
    // Starts the worker (std::system_error when no thread can be created).
    AsyncLoader();
    // Stops and joins the worker if the owner has not (a joinable thread
    // would end the process).
    ~AsyncLoader();
    AsyncLoader(const AsyncLoader&) = delete;
    AsyncLoader& operator=(const AsyncLoader&) = delete;

    void setCacheMgr(std::weak_ptr<CacheManager> cache);

    // Queues a mesh unless it is pending (queued, being baked, or refused by
    // the mesh stages, which would refuse it again). Does not allocate once
    // the queue and the pending set have grown to the number of meshes in
    // flight.
    void addOccluder(const OccluderRaw& record);

    void continueThread();
    void pauseThread() { paused = true; }
    bool isThreadPaused() const { return paused; }
    bool isEmpty() const;
    size_t queueSize() const; // records waiting, the one being baked included
    // Asks the worker to end; it stops between meshes and between the levels
    // of one mesh, leaving the rest unbaked.
    void stop();
    // stop(), then join the worker. Call from the owning thread.
    void ensureCompletion();
    bool init() { return true; }

    // Bakes one mesh into a group and caches it; nothing when the cache is
    // gone, the indices leave the vertex array, or a stop arrives midway.
    void load(const OccluderRaw& record);

    // The mesh of level lod: reduced to (ratio of the level) x vertexCount
    // triangles, or, when that target is under 300, the mesh itself as given
    // (w = 1), which makes it the last level. Returns true for the latter.
    static bool levelMesh(const OccluderRaw& record, unsigned lod, std::vector<float4>& vertices,
                          std::vector<uint32_t>& indices);

    // One level baked: paired into quads (padded to whole batches of four
    // with copies of the first index), expanded, and packed in the box of the
    // level's own vertices. expanded is scratch, passed in for its storage.
    static std::shared_ptr<Occluder> bakeLevel(const std::vector<float4>& vertices,
                                               const std::vector<uint32_t>& indices, std::vector<float4>& expanded);
    // True when the mesh stages accept the mesh: arrays present, at least one
    // whole triangle, every index of a whole triangle below vertexCount.
    static bool bakeable(const OccluderRaw& record);

private:
    // Open-addressed set of mesh identities (linear probing, deletion by
    // backward shift): it allocates only when it grows, unlike node-based maps.
    class MeshSet {
    public:
        bool contains(const float* vertices, const uint16_t* indices) const;
        void insert(const float* vertices, const uint16_t* indices); // vertices must be non-null
        void erase(const float* vertices, const uint16_t* indices);

    private:
        struct Key {
            const float* vertices; // null marks an empty slot
            const uint16_t* indices;
        };
        size_t slotOf(const float* vertices, const uint16_t* indices) const;
        void grow();

        std::vector<Key> slots;
        size_t count = 0;
    };

    void run();

    std::thread thread;
    mutable std::mutex mutex; // guards queue, queueHead, pending, cacheManager and the waits
    std::condition_variable condition;
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> paused{false};
    // Records queue[queueHead..] wait in arrival order; the consumed prefix is
    // dropped in place so the storage keeps its capacity.
    std::vector<OccluderRaw> queue;
    size_t queueHead = 0;
    MeshSet pending;
    std::weak_ptr<CacheManager> cacheManager;
};

} // namespace common
