#include "common/AsyncLoader.h"

#include "common/OccluderBaker.h"

#include <chrono>

namespace common {

AsyncLoader::AsyncLoader() { thread = std::thread(&AsyncLoader::run, this); }

AsyncLoader::~AsyncLoader() { ensureCompletion(); }

void AsyncLoader::setCacheMgr(std::weak_ptr<CacheManager> cache) {
    std::lock_guard<std::mutex> lock(mutex);
    cacheManager = std::move(cache);
}

void AsyncLoader::addOccluder(const OccluderRaw& record) {
    if (record.vertices == nullptr) return;
    std::lock_guard<std::mutex> lock(mutex);
    if (pending.contains(record.key())) return;
    queue.push_back(record);
    pending.insert(record.key());
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
        const bool accepted = record.valid();
        if (accepted) load(record);
        std::lock_guard<std::mutex> lock(mutex);
        ++queueHead;
        if (2 * queueHead >= queue.size()) {
            queue.erase(queue.begin(), queue.begin() + std::ptrdiff_t(queueHead)); // keeps the capacity
            queueHead = 0;
        }
        if (accepted) pending.erase(record.key());
    }
}

void AsyncLoader::load(const OccluderRaw& record) {
    std::weak_ptr<CacheManager> cacheRef;
    {
        std::lock_guard<std::mutex> lock(mutex);
        cacheRef = cacheManager;
    }
    if (cacheRef.expired()) return;
    OccluderBaker baker; // its scratch lives for one mesh, as the bake's own storage would
    const std::shared_ptr<OccluderGroup> group = baker.bake(record, &stopRequested);
    if (group == nullptr) return;
    if (const std::shared_ptr<CacheManager> cache = cacheRef.lock()) cache->cache(record.key(), group);
}

} // namespace common
