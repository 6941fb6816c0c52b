// The shared cache of tile buffers (IxTileStorage.h).
#include "IxTileStorage.h"

#include <sys/mman.h>

#include <cstdint>
#include <mutex>
#include <new>
#include <vector>

namespace Zt {

namespace {

// Enough for the tiles in flight on every thread (output, input, sampler tiles) of a machine
// with many cores, and for the frames of a sequence in flight (an input read ahead, one being
// rendered): the bytes bound what an idle host keeps.
constexpr std::size_t kMaxKept = 64;
constexpr std::size_t kMaxKeptBytes = std::size_t(512) << 20;
// A buffer of a whole frame is aligned to a huge page and asks for huge pages.
constexpr std::size_t kHugePage = std::size_t(2) << 20;

struct Kept {
    IxTileStorage::Buffer buffer;
    std::size_t capacity;
};

struct Cache {
    std::mutex mutex;
    std::vector<Kept> kept;
    std::size_t bytes = 0;
};

Cache& cache() {
    // Never destroyed: tiles may die during static destruction.
    static Cache* instance = new Cache;
    return *instance;
}

}  // namespace

IxTileStorage::Buffer IxTileStorage::acquire(std::size_t count, std::size_t& capacity) {
    if (count == 0) {
        capacity = 0;
        return nullptr;
    }
    {
        Cache& c = cache();
        std::lock_guard lock(c.mutex);
        // The smallest kept buffer that holds `count` and wastes at most half of itself.
        std::size_t best = c.kept.size();
        for (std::size_t i = 0; i < c.kept.size(); ++i) {
            const std::size_t k = c.kept[i].capacity;
            if (k >= count && k / 2 <= count && (best == c.kept.size() || k < c.kept[best].capacity)) best = i;
        }
        if (best != c.kept.size()) {
            Kept found = std::move(c.kept[best]);
            c.kept[best] = std::move(c.kept.back());
            c.kept.pop_back();
            c.bytes -= found.capacity * sizeof(Color);
            capacity = found.capacity;
            return std::move(found.buffer);
        }
    }
    // Cache-line aligned, so that a row of a tile of a multiple of four columns starts aligned.
    const std::size_t alignment = count * sizeof(Color) >= 2 * kHugePage ? kHugePage : 64;
    const std::size_t bytes = (count * sizeof(Color) + alignment - 1) / alignment * alignment;
    Color* p = static_cast<Color*>(std::aligned_alloc(alignment, bytes));
    if (!p) throw std::bad_alloc();
    if (alignment == kHugePage) adviseHugePages(p, bytes);
    capacity = count;
    return Buffer(p);
}

void IxTileStorage::adviseHugePages(void* p, std::size_t bytes) {
    const auto begin = (reinterpret_cast<std::uintptr_t>(p) + kHugePage - 1) / kHugePage * kHugePage;
    const auto end = (reinterpret_cast<std::uintptr_t>(p) + bytes) / kHugePage * kHugePage;
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

void IxTileStorage::release(Buffer buffer, std::size_t capacity) {
    if (!buffer) return;
    Cache& c = cache();
    std::lock_guard lock(c.mutex);
    const std::size_t bytes = capacity * sizeof(Color);
    if (c.kept.size() >= kMaxKept || c.bytes + bytes > kMaxKeptBytes) return;  // freed by `buffer`
    c.kept.push_back({std::move(buffer), capacity});
    c.bytes += bytes;
}

std::size_t IxTileStorage::keptCount() {
    Cache& c = cache();
    std::lock_guard lock(c.mutex);
    return c.kept.size();
}

void IxTileStorage::clear() {
    Cache& c = cache();
    std::lock_guard lock(c.mutex);
    c.kept.clear();
    c.bytes = 0;
}

}  // namespace Zt
