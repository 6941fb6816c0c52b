// The parallel render loop (PxTileRenderer.h).
#include "PxTileRenderer.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

namespace Zt {

namespace {

// Floor division, for tile indices of negative pixel coordinates.
int floorDiv(int a, int b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

}  // namespace

PxTileRenderer::PxTileRenderer(int threads)
    : _threads(threads > 0 ? threads : std::max(1, int(std::thread::hardware_concurrency()))) {}

PxRenderedImage PxTileRenderer::render(const PxImageProtocol& node, const GeRectangle<int>& rect,
                                       const PxImageContext& context) const {
    if (context.tileWidth < 1 || context.tileHeight < 1)
        Assertions::throwAssertionFailed("host/PxTileRenderer", __LINE__, "tileWidth >= 1 && tileHeight >= 1");
    PxRenderedImage image;
    image.rect = rect;
    image.validity = PxValidityInterval::getFull();
    if (rect.isEmpty()) return image;
    image.pixels.assign(std::size_t(rect.width()) * std::size_t(rect.height()), Color::ZERO);

    const int tx0 = floorDiv(rect.xMin, context.tileWidth), tx1 = floorDiv(rect.xMax - 1, context.tileWidth) + 1;
    const int ty0 = floorDiv(rect.yMin, context.tileHeight), ty1 = floorDiv(rect.yMax - 1, context.tileHeight) + 1;
    const std::size_t columns = std::size_t(tx1 - tx0), total = columns * std::size_t(ty1 - ty0);

    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    std::mutex mutex;  // guards validity, firstError, done
    std::condition_variable changed;
    std::exception_ptr firstError;
    std::size_t done = 0;

    auto work = [&] {
        for (std::size_t i; !failed.load() && (i = next.fetch_add(1)) < total;) {
            PxImageContext tileContext = context;
            tileContext.tileX = tx0 + int(i % columns);
            tileContext.tileY = ty0 + int(i / columns);
            try {
                const PxImageResult result = node.getImage(tileContext);
                // Tiles are disjoint: each writes its own pixels, no lock needed for them.
                const IxTile& tile = *result.getTile();
                const GeRectangle<int>& r = tile.getRect();
                const int x0 = std::max(r.xMin, rect.xMin), x1 = std::min(r.xMax, rect.xMax);
                for (int y = std::max(r.yMin, rect.yMin); x0 < x1 && y < std::min(r.yMax, rect.yMax); ++y)
                    std::copy(tile.row(y) + (x0 - r.xMin), tile.row(y) + (x1 - r.xMin),
                              image.pixels.begin() + std::ptrdiff_t(y - rect.yMin) * rect.width() + (x0 - rect.xMin));
                std::lock_guard lock(mutex);
                result.reduceVI(image.validity);
                ++done;
            } catch (...) {
                std::lock_guard lock(mutex);
                if (!firstError) firstError = std::current_exception();
                failed.store(true);
            }
            changed.notify_one();
        }
    };

    const int workers = int(std::min<std::size_t>(std::size_t(_threads), total));
    std::vector<std::thread> pool;
    for (int w = 0; w < workers; ++w) pool.emplace_back(work);
    if (_progress) {
        std::unique_lock lock(mutex);
        while (done < total && !failed.load()) {
            _progress(done, total);
            changed.wait_for(lock, std::chrono::milliseconds(100));
        }
        if (!failed.load()) _progress(done, total);
    }
    for (std::thread& t : pool) t.join();
    if (firstError) std::rethrow_exception(firstError);
    return image;
}

}  // namespace Zt
