// The parallel render loop (PxTileRenderer.h).
#include "PxTileRenderer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <thread>

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

namespace Zt {

namespace {

GeRectangle<int> convertTilesToCell(const PxImageContext& context) {
    return PxImageProtocol::convertTilesToPixels(
        GeRectangle<int>(context.tileX, context.tileX + 1, context.tileY, context.tileY + 1), context);
}

}  // namespace

PxTileRenderer::PxTileRenderer(int threads)
    : _threads(threads > 0 ? threads : std::max(1, int(std::thread::hardware_concurrency()))) {}

PxRenderedImage PxTileRenderer::render(const PxImageProtocol& node, const GeRectangle<int>& rect,
                                       const PxImageContext& context) const {
    PxRenderedImage image;
    render(node, rect, context, image);
    return image;
}

void PxTileRenderer::render(const PxImageProtocol& node, const GeRectangle<int>& rect, const PxImageContext& context,
                            PxRenderedImage& image) const {
    image.rect = rect;
    // Every pixel is written by the render, so a reused buffer is not cleared: clearing 50 MB
    // costs as much as a simple script's render.
    const std::size_t count = rect.isEmpty() ? 0 : std::size_t(rect.width()) * std::size_t(rect.height());
    if (image.pixels.capacity() < count) {
        image.pixels.clear();
        image.pixels.reserve(count);
        IxTileStorage::adviseHugePages(image.pixels.data(), count * sizeof(Color));
    }
    image.pixels.resize(count);
    image.validity = render(node, context, PxTileDestination{image.pixels.data(), rect.width(), rect});
}

PxValidityInterval PxTileRenderer::render(const PxImageProtocol& node, const PxImageContext& context,
                                          const PxTileDestination& frame) const {
    if (context.tileWidth < 1 || context.tileHeight < 1)
        Assertions::throwAssertionFailed("host/PxTileRenderer", __LINE__, "tileWidth >= 1 && tileHeight >= 1");
    const GeRectangle<int>& rect = frame.rect;
    PxValidityInterval validity = PxValidityInterval::getFull();
    if (rect.isEmpty()) return validity;

    const int tx0 = floorDiv(rect.xMin, context.tileWidth), tx1 = floorDiv(rect.xMax - 1, context.tileWidth) + 1;
    const int ty0 = floorDiv(rect.yMin, context.tileHeight), ty1 = floorDiv(rect.yMax - 1, context.tileHeight) + 1;
    const std::size_t columns = std::size_t(tx1 - tx0), total = columns * std::size_t(ty1 - ty0);

    std::mutex mutex;  // guards validity and the progress report
    std::atomic<std::size_t> done{0};
    const std::thread::id caller = std::this_thread::get_id();
    auto lastReport = std::chrono::steady_clock::now();
    if (_progress) _progress(0, total);

    // Tiles may be made over the frame's own rows (PxTileDestination): their rows need no copy.
    auto renderTile = [&](std::size_t i) {
        PxImageContext tileContext = context;
        tileContext.destination = &frame;
        tileContext.tileX = tx0 + int(i % columns);
        tileContext.tileY = ty0 + int(i / columns);
        const PxImageResult result = node.getImage(tileContext);
        // Tiles are disjoint: each writes its own pixels, no lock needed for them.
        const IxTile& tile = *result.getTile();
        const GeRectangle<int>& r = tile.getRect();
        // The grid cell's part of `rect`: the tile's pixels where it has them, transparent black
        // elsewhere. A tile made over the image's own rows is already in place.
        const GeRectangle<int> cell = convertTilesToCell(tileContext);
        const int cx0 = std::max(cell.xMin, rect.xMin), cx1 = std::min(cell.xMax, rect.xMax);
        const int x0 = std::clamp(r.xMin, cx0, cx1), x1 = std::clamp(r.xMax, x0, cx1);
        for (int y = std::max(cell.yMin, rect.yMin); y < std::min(cell.yMax, rect.yMax); ++y) {
            Color* const out = frame.at(0, y);
            if (y < r.yMin || y >= r.yMax || x0 == x1) {
                std::fill(out + cx0, out + cx1, Color::ZERO);
                continue;
            }
            std::fill(out + cx0, out + x0, Color::ZERO);
            if (tile.row(y) + (x0 - r.xMin) != out + x0)
                std::copy(tile.row(y) + (x0 - r.xMin), tile.row(y) + (x1 - r.xMin), out + x0);
            std::fill(out + x1, out + cx1, Color::ZERO);
        }
        {
            std::lock_guard lock(mutex);
            result.reduceVI(validity);
        }
        const std::size_t finished = done.fetch_add(1) + 1;
        // The calling thread takes tiles like every worker; it alone reports, at most 10 times a
        // second, so the progress callback never runs concurrently with itself.
        if (_progress && std::this_thread::get_id() == caller) {
            const auto now = std::chrono::steady_clock::now();
            if (now - lastReport >= std::chrono::milliseconds(100)) {
                lastReport = now;
                _progress(finished, total);
            }
        }
    };

    // One tile per task, in row-major order. The first exception (ExCancelled from
    // checkRequest, or any failure) cancels the remaining tiles and is rethrown here by oneTBB.
    const int concurrency = int(std::min<std::size_t>(std::size_t(_threads), total));
    // --threads may ask for more threads than cores; oneTBB caps its workers at the core count
    // unless told. Workers get the main thread's usual 8 MiB of stack (oneTBB's default is 4),
    // so the deepest script the parser accepts evaluates on a worker as it does on the caller.
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer build only: the Debian oneTBB library is not instrumented, so its hand-offs
    // between workers look like races; plain threads taking tiles in the same order let TSan check
    // everything the tiles share (the node, the run info, the image, validity and progress).
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    std::exception_ptr failure;
    auto work = [&] {
        for (std::size_t i; !failed.load() && (i = next.fetch_add(1)) < total;) {
            try {
                renderTile(i);
            } catch (...) {
                std::lock_guard lock(mutex);
                if (!failed.exchange(true)) failure = std::current_exception();
            }
        }
    };
    std::vector<std::thread> workers;
    for (int t = 1; t < concurrency; ++t) workers.emplace_back(work);
    work();
    for (std::thread& worker : workers) worker.join();
    if (failure) std::rethrow_exception(failure);
#else
    tbb::global_control parallelism(tbb::global_control::max_allowed_parallelism, std::size_t(concurrency));
    tbb::global_control stack(tbb::global_control::thread_stack_size, std::size_t(8) << 20);
    tbb::task_arena arena(concurrency);
    arena.execute([&] {
        tbb::parallel_for(tbb::blocked_range<std::size_t>(0, total, 1),
                          [&](const tbb::blocked_range<std::size_t>& range) {
                              for (std::size_t i = range.begin(); i != range.end(); ++i) renderTile(i);
                          },
                          tbb::simple_partitioner());
    });
#endif
    if (_progress) _progress(total, total);
    return validity;
}

}  // namespace Zt
