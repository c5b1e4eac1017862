#include "common/MeshKeySet.h"

#include "common/Checked.h"

namespace common {

bool MeshKeySet::contains(const MeshKey& key) const {
    if (slots.empty() || key.vertices == nullptr) return false;
    for (size_t i = slotOf(key);; i = (i + 1) & (slots.size() - 1)) {
        if (slots[i].vertices == nullptr) return false;
        if (slots[i] == key) return true;
    }
}

void MeshKeySet::insert(const MeshKey& key) {
    if (key.vertices == nullptr || contains(key)) return;
    if (checkedMul<size_t>(checkedAdd<size_t>(count, 1), 2) > slots.size()) grow(); // at most half full
    size_t i = slotOf(key);
    while (slots[i].vertices != nullptr) i = (i + 1) & (slots.size() - 1);
    slots[i] = key;
    ++count;
}

void MeshKeySet::erase(const MeshKey& key) {
    if (!contains(key)) return;
    const size_t mask = slots.size() - 1;
    size_t hole = slotOf(key);
    while (slots[hole] != key) hole = (hole + 1) & mask;
    // Pull later members of the run into the hole when their home slot does
    // not lie between the hole and them, so that no probe run breaks.
    for (size_t i = (hole + 1) & mask; slots[i].vertices != nullptr; i = (i + 1) & mask) {
        const size_t home = slotOf(slots[i]);
        if (((i - home) & mask) >= ((i - hole) & mask)) {
            slots[hole] = slots[i];
            hole = i;
        }
    }
    slots[hole] = MeshKey{};
    --count;
}

void MeshKeySet::grow() {
    std::vector<MeshKey> old(slots.empty() ? size_t(16) : checkedMul<size_t>(slots.size(), 2), MeshKey{});
    old.swap(slots);
    count = 0;
    for (const MeshKey& key : old)
        if (key.vertices != nullptr) insert(key);
}

} // namespace common
