// The image side of the host framework that the engine calls: validity intervals, regions of
// definition, contexts, formats, tiles and their guards, image nodes, results, the request
// manager (cancellation point), and textures with their sampler. Rows grow upwards: row 0 is
// the bottom row of an image; nominal coordinates are full-resolution pixels times the pixel
// aspect in x.
#pragma once

#include <algorithm>

#include <memory>
#include <vector>

#include "CoColor.h"
#include "IxScanline.h"
#include "IxTileStorage.h"
#include "ZtGeometry.h"
#include "ZtRC.h"

namespace Zt {

// The range of times over which a result holds.
class PxValidityInterval {
public:
    static constexpr double kMinTime = -31536000.0;
    static constexpr double kMaxTime = 31536000.0;
    static constexpr double kEpsilon = 5.208333333333334e-9;  // 1/192000000

    PxValidityInterval() : PxValidityInterval(getFull()) {}
    PxValidityInterval(double begin, double end) : begin(begin), end(end) {}
    // Kinds: begin 0 adds epsilon, 1 leaves, 2 subtracts; end 0 subtracts, 1 leaves, 2 adds.
    // A bound equal to a limit stays; equal bounds with both kinds 0 are taken as they are.
    PxValidityInterval(double begin, int beginKind, double end, int endKind);
    static PxValidityInterval getFull() { return PxValidityInterval(kMinTime, kMaxTime); }
    bool operator==(const PxValidityInterval&) const = default;

    double begin;
    double end;
};

struct PxRODResult {
    PxValidityInterval validity;
    GeRectangle<float> rect;  // nominal
    const PxValidityInterval& getValidity() const { return validity; }
    const GeRectangle<float>& getRect() const { return rect; }
};

struct PxTimeScaleContext {
    double time = 0.0;
    int scaleLevel = 0;
};

// Pixels that the caller of getImage offers for the tile it asks for: a node may make its
// output tile over them, so that the tile's rows are written where the caller wants them and
// nothing is copied. Pixel (x, y) of `rect` is rows[(y - rect.yMin) * stride + (x - rect.xMin)];
// the caller keeps them alive, and keeps no other use of them, while the tile lives. A node
// passes no destination on to the nodes it reads.
struct PxTileDestination {
    Color* rows = nullptr;
    std::ptrdiff_t stride = 0;
    GeRectangle<int> rect;
    bool holds(const GeRectangle<int>& r) const {
        return rows && r.xMin >= rect.xMin && r.xMax <= rect.xMax && r.yMin >= rect.yMin && r.yMax <= rect.yMax;
    }
    Color* at(int x, int y) const { return rows + std::ptrdiff_t(y - rect.yMin) * stride + (x - rect.xMin); }
};

// tileWidth and tileHeight are our host's: the fixed tile grid.
struct PxImageContext : PxTimeScaleContext {
    int tileX = 0;
    int tileY = 0;
    int tileWidth = 256;
    int tileHeight = 256;
    // Chooses the sequence of rand(): a render's random values depend on it, the pixel, the time
    // and the call, never on tiles or threads.
    unsigned seed = 0;
    // Where the caller would like the tile's pixels; null: anywhere.
    const PxTileDestination* destination = nullptr;
    const PxTimeScaleContext& timeScale() const { return *this; }
};

// Pixel aspect as the quotient of two integers, first over second.
struct IxPixelFormat {
    int aspectNum = 1;
    int aspectDen = 1;
    float aspect() const { return float(aspectNum) / float(aspectDen); }
};
struct PxImageFormat : IxPixelFormat {};

// A tile: RGBA float pixels over a pixel rectangle, rows bottom-up (row yMin first).
class IxTile : public RCBase<LkCounter<int>> {
public:
    // A tile of its own pixels, each set to `fill`. The storage comes from IxTileStorage.
    IxTile(const IxPixelFormat& format, const GeRectangle<int>& rect, const Color& fill);
    // A read-only tile over pixels kept elsewhere (issue 8: an in-memory image lends its rows
    // instead of copying them): row yMin starts at `rows`, each next row `stride` colours further
    // on, and `owner` keeps them alive as long as the tile.
    IxTile(const IxPixelFormat& format, const GeRectangle<int>& rect, const Color& fill, const Color* rows,
           std::ptrdiff_t stride, RCShdPtr<const RCBase<LkCounter<int>>> owner);
    // A tile whose maker writes every pixel before anyone reads one (a node's output tile): over
    // the rows of `destination` when it holds the whole rectangle, so that they are written in
    // place, otherwise over storage of its own. Its pixels are not filled: a fill would only
    // be overwritten.
    IxTile(const IxPixelFormat& format, const GeRectangle<int>& rect, const Color& fill,
           const PxTileDestination* destination);
    ~IxTile() override;
    IxTile(const IxTile&) = delete;
    IxTile& operator=(const IxTile&) = delete;

    const IxPixelFormat& getFormat() const { return _format; }
    const GeRectangle<int>& getRect() const { return _rect; }
    Color& fillColor() { return _fill; }
    const Color& getFillColor() const { return _fill; }
    void setFillColor(const Color& c) { _fill = c; }
    bool isLent() const { return _owner.get() != nullptr; }
    // Writing into a lent tile would change the image that lent it: an assertion.
    Color* row(int y) {
        if (isLent()) Assertions::throwAssertionFailed("host/PxImage.h", __LINE__, "!isLent()");
        return const_cast<Color*>(rowAt(y));
    }
    const Color* row(int y) const { return rowAt(y); }

private:
    const Color* rowAt(int y) const { return _rows + std::ptrdiff_t(y - _rect.yMin) * _stride; }

    IxPixelFormat _format;
    GeRectangle<int> _rect;
    Color _fill;
    IxTileStorage::Buffer _storage;
    std::size_t _capacity = 0;
    const Color* _rows = nullptr;
    std::ptrdiff_t _stride = 0;
    RCShdPtr<const RCBase<LkCounter<int>>> _owner;
};

class IxReadGuard {
public:
    explicit IxReadGuard(RCShdPtr<const IxTile> tile) : _tile(std::move(tile)) {}
    const IxTile& tile() const { return *_tile; }
private:
    RCShdPtr<const IxTile> _tile;
};

class IxWriteGuard {
public:
    explicit IxWriteGuard(RCShdPtr<IxTile> tile) : _tile(std::move(tile)) {}
    IxTile& tile() const { return *_tile; }
private:
    RCShdPtr<IxTile> _tile;
};

class PxImageResult {
public:
    PxImageResult() = default;
    PxImageResult(RCShdPtr<IxTile> tile, const PxValidityInterval& validity) : _tile(std::move(tile)), _validity(validity) {}
    // Narrows `vi` to what this result allows.
    void reduceVI(PxValidityInterval& vi) const;
    Color getFillColor() const { return _tile ? _tile->getFillColor() : Color::ZERO; }
    IxReadGuard getTileGuard() const { return IxReadGuard(RCShdPtr<const IxTile>(_tile.get())); }
    const RCShdPtr<IxTile>& getTile() const { return _tile; }
    const PxValidityInterval& getValidity() const { return _validity; }

private:
    RCShdPtr<IxTile> _tile;
    PxValidityInterval _validity;
};

// An image node of the processing graph. The three virtual operations in the order of their
// slots: getFormat, getROD, getImage.
class PxImageProtocol : public RCBase<LkCounter<int>> {
public:
    virtual PxImageFormat getFormat() const = 0;
    virtual PxRODResult getROD(const PxImageContext& context) const = 0;
    virtual PxImageResult getImage(const PxImageContext& context) const = 0;

    // Tile (i, j) covers pixels (i*W, (i+1)*W, j*H, (j+1)*H) for the context's tile size W x H.
    static GeRectangle<int> convertTilesToPixels(const GeRectangle<int>& tiles, const PxImageContext& context);
    // Nominal to pixels: px = x * scale / aspect, py = y * scale; rounded outward,
    // except that a bound within a relative 1e-6 of an integer is that integer.
    static GeRectangle<int> nominalToPixelized(const GeRectangle<float>& nominal, float aspect, float scale);
};

template <class T>
using PxNodePtr = RCShdPtr<T>;

// The host's cancellation point, asked before every row and every pass of a loop. Throws
// ExCancelled once the current render was cancelled.
class PxRequestMgr {
public:
    static PxRequestMgr& getInstance();
    void checkRequest();
    // Host side: cancel all renders in flight / allow renders again.
    void cancel();
    void reset();
    bool isCancelled() const;
    // Host side: the next `checks` calls of checkRequest pass and every later one throws, as a
    // time limit would (bounded runs: fuzzing, tests); a negative number lifts the budget.
    void setCheckBudget(long long checks);
};

struct SdTextureParams {
    // What a read outside the image gives, along one axis: the fill colour, the nearest edge
    // pixel, the image repeated, or the image repeated mirrored (its edge pixels once each).
    enum WrapMode : int { kWrapFill = 0, kWrapClamp = 1, kWrapRepeat = 2, kWrapMirror = 3 };
    GeAffineMatrix2<float> textureMatrix;  // nominal position -> unit square
    int filterMode = 0;  // 1: bilinear; any other: nearest
    int wrapModeS = kWrapFill;
    int wrapModeT = kWrapFill;
};

// Reads an image at any nominal position: bilinear over pixel centres; outside the image's
// rectangle it reads the fill colour. PxImageTexture.cpp tells the mapping
// through the texture matrix, the modes and the lazy tile cache; a sampler serves one thread.
class SdTextureSampler : public RCBase<LkCounter<int>> {
public:
    virtual void sampleAt(Color& result, const double coords[2], const GeLinearMatrix2<double>& derivatives) const = 0;
    // A row at once (issue 8: no virtual call per pixel): out[x] = sampleAt((xs[x], ys[x])) with
    // no derivatives, for x in [lo, hi) where `active` is null or active[x] is not 0.0. The
    // pointers are biased like IxScanline::data(). A sampler may override it with a faster loop
    // that gives the same colours.
    virtual void sampleRow(Color* out, const float* xs, const float* ys, const float* active, int lo, int hi) const {
        GeLinearMatrix2<double> none;
        none.setIdentity();
        for (int x = lo; x < hi; ++x) {
            if (active && active[x] == 0.0f) continue;
            const double coords[2] = {double(xs[x]), double(ys[x])};
            sampleAt(out[x], coords, none);
        }
    }
    // out[x] = out[x] + sampleAt((xs[x], ys[x])) at the same columns as sampleRow, in that order
    // of operands: a sum of neighbours (`sum += sample(src, x + i, y + j)`) without a row of
    // samples between. By default the samples go through sampleRow, a piece at a time.
    virtual void addRow(Color* out, const float* xs, const float* ys, const float* active, int lo, int hi) const {
        constexpr int kPiece = 64;
        Color samples[kPiece];
        for (int begin = lo; begin < hi; begin += kPiece) {
            const int end = std::min(begin + kPiece, hi);
            sampleRow(samples - begin, xs, ys, active, begin, end);
            for (int x = begin; x < end; ++x)
                if (!active || active[x] != 0.0f) out[x] = out[x] + samples[x - begin];
        }
    }
    // Called for each ordered pair of distinct samplers of one tile; a sampler that can share
    // its reads with another takes the link here (ours share nothing).
    virtual void linkSampler(const RCStrongPtr<const SdTextureSampler>& other) const {}
};

class PxImageTexture : public RCBase<LkCounter<int>> {
public:
    PxImageTexture(const PxNodePtr<const PxImageProtocol>& node, const PxTimeScaleContext& context,
                   const SdTextureParams& params);
    RCStrongPtr<const SdTextureSampler> createSampler() const;

private:
    PxNodePtr<const PxImageProtocol> _node;
    PxTimeScaleContext _context;
    SdTextureParams _params;
};

}  // namespace Zt
