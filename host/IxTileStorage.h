// Pixel storage for tiles (issue 8). Every tile evaluation makes an output tile, and every input
// and sampler fetch makes another; freshly allocated, each of those megabytes faults its pages in
// again once the allocator has handed the last ones back to the system, and that cost more than
// the whole script in the profiles of bench/analysis.md. IxTileStorage keeps the buffers of dead
// tiles and gives them to the next tile of the same or a slightly smaller size. Tiles die on other
// threads than the one that made them (the renderer frees them after assembly), so the cache is
// shared and locked; one lock per tile is nothing beside a tile's work.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

#include "CoColor.h"

namespace Zt {

class IxTileStorage {
public:
    struct Free {
        void operator()(Color* p) const { std::free(p); }
    };
    // Colour is an implicit-lifetime type: raw storage holds colours once written.
    using Buffer = std::unique_ptr<Color[], Free>;

    // A buffer of at least `count` colours, uninitialised; a kept buffer when one fits.
    static Buffer acquire(std::size_t count, std::size_t& capacity);
    // Gives a buffer back; kept while the cache holds fewer than its limits, freed otherwise.
    static void release(Buffer buffer, std::size_t capacity);

    // Asks the system for huge pages over the whole 2 MiB pages inside [p, p + bytes), before
    // they are first touched: a 50 MB frame then faults in 25 pages instead of 12,000. A hint;
    // where it is refused, small pages serve.
    static void adviseHugePages(void* p, std::size_t bytes);

    // For tests and benchmarks: how many buffers the cache holds, and dropping them all.
    static std::size_t keptCount();
    static void clear();
};

}  // namespace Zt
