#pragma once

#include "common/CacheManager.h"
#include "common/MeshKeySet.h"
#include "common/OccluderRaw.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace common {

// The background thread that bakes rigid meshes into the cache, one at a
// time. The render thread only queues meshes and wakes the worker; the one
// lock it shares with the worker is held for queue edits, never while a mesh
// is baked.
class AsyncLoader {
public:
    // Starts the worker (std::system_error when no thread can be created).
    AsyncLoader();
    // Stops and joins the worker if the owner has not (a joinable thread
    // would end the process).
    ~AsyncLoader();
    AsyncLoader(const AsyncLoader&) = delete;
    AsyncLoader& operator=(const AsyncLoader&) = delete;

    // Sets cacheManager, where finished groups go.
    void setCacheMgr(std::weak_ptr<CacheManager> cache);

    // Queues a mesh unless it is pending (queued, being baked, or refused by
    // the index rule, which would refuse it again). Pending is keyed on the
    // (vertices, indices) pair, so meshes sharing a vertex array are queued
    // each on its own. Does not allocate once the queue and the pending set
    // have grown to the number of meshes in flight.
    void addOccluder(const OccluderRaw& record);

    void continueThread();
    void pauseThread() { paused = true; }
    bool isThreadPaused() const { return paused; }
    bool isEmpty() const;
    size_t queueSize() const; // records waiting, the one being baked included
    // Asks the worker to end. The request is checked between meshes and
    // between the levels of one mesh, so a long bake ends early and the rest
    // stays unbaked: a stopping engine has no use for it.
    void stop();
    // stop(), then join the worker. Call from the owning thread.
    void ensureCompletion();
    bool init() { return true; }

    // Bakes one mesh on the calling thread and caches its group; nothing when
    // the cache is gone, the mesh breaks the index rule, or a stop arrives.
    void load(const OccluderRaw& record);

private:
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
    MeshKeySet pending;
    std::weak_ptr<CacheManager> cacheManager;
};

} // namespace common
