// PxImageTexture and its sampler: reads an image node at any nominal position, for
// `sample(i, x, y)`, through the texture matrix that the interpreter builds for each input.
//
// Mapping. A position goes through the texture matrix to the unit square (u, v), which spans the
// node's nominal rectangle (w, h its width and height, 1 where 0). The matrix adds half a
// full-resolution square pixel, so that at scale 1 and aspect 1 the unit square is the usual
// texture space, pixel i's centre at (i + 0.5) / W. We read it back as the texel coordinate
// tx = (u - m20) / m00 * scale / aspect, ty = (v - m21) / m11 * scale, m being the interpreter's
// matrix for the node's rectangle (so tx = x * scale / aspect), in which pixel i of the image at
// the context's scale is sampled exactly at i: a script that samples at its own `x` and `y`
// reads the current pixel at every scale and aspect, not only at scale 1 and aspect 1.
//
// Filtering (filterMode 1): bilinear between the four pixels around (tx, ty). A pixel outside
// the image's pixel rectangle reads the fill colour, transparent black (kWrapFill), so edges
// blend to transparent black; kWrapClamp reads the nearest edge pixel instead, kWrapRepeat the
// image repeated (pixel -1 is the last pixel), kWrapMirror the image repeated mirrored (pixel
// -1 is pixel 0, so that the edge pixel repeats once at each fold). Under repeat and mirror a
// coordinate is first brought into one period, exactly (fmod), so that a far position reads as
// well as a near one. Any other filter mode reads the nearest pixel. The derivatives are
// ignored: no prefiltering.
//
// Pixels come from the node's getImage, in tiles of kTileWidth x kTileHeight at the context's scale, fetched
// the first time a sample touches them and kept for the sampler's life (one tile evaluation).
// A sampler is therefore used by one thread, as everything that a tile evaluation makes.
// linkSampler does nothing: samplers share no state.
#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "IxScanlineUtil.h"
#include "PxImage.h"

namespace Zt {

namespace {

// Wide and short: a tile evaluation runs row by row, so a sampler mostly reads a band of rows.
// Measured on E7 (bench/kelEffects, 2048x32 tiles): 256x16 about 2.5 times as fast as 64x64,
// which fetched and filled twice the rows a band needs (docs/performance.md).
constexpr int kTileWidth = 256;
constexpr int kTileHeight = 16;

class PxTileSampler final : public SdTextureSampler {
public:
    PxTileSampler(const PxNodePtr<const PxImageProtocol>& node, const PxTimeScaleContext& timeScale,
                  const SdTextureParams& params)
        : _node(node), _params(params) {
        static_cast<PxTimeScaleContext&>(_tileContext) = timeScale;
        _tileContext.tileWidth = kTileWidth;
        _tileContext.tileHeight = kTileHeight;
        const float scale = 1.0f / float(1 << timeScale.scaleLevel);
        const PxImageFormat format = node->getFormat();
        const float aspect = format.aspect();
        const GeRectangle<float> nominal = node->getROD(_tileContext).rect;
        _pixels = PxImageProtocol::nominalToPixelized(nominal, aspect, scale);
        if (_pixels.isEmpty()) _pixels = GeRectangle<int>();

        // Unit square to texel coordinates, composed with the texture matrix. The unit square
        // is read back through the exact inverse of the float matrix that the interpreter
        // builds for this rectangle (the same float operations), not through w and h: 1 / w
        // is rounded in the matrix, and dividing by it again is exact in double where
        // multiplying by w is not. So with that matrix the composition is exactly
        // tx = x * scale / aspect, and an offset of a thousandth of a pixel at column 2000
        // stays an offset; any other matrix goes through it as given.
        float w = nominal.xMax - nominal.xMin, h = nominal.yMax - nominal.yMin;
        if (w == 0.0f) w = 1.0f;
        if (h == 0.0f) h = 1.0f;
        const double su = double(1.0f / w), tu = double((0.5f - nominal.xMin) / w);
        const double sv = double(1.0f / h), tv = double((0.5f - nominal.yMin) / h);
        const double sx = double(scale) / double(aspect), sy = double(scale);
        const auto& m = params.textureMatrix.m;
        for (int i = 0; i < 3; ++i) {
            _toTexelX[i] = (double(m[i][0]) - (i == 2 ? tu : 0.0)) / su * sx;
            _toTexelY[i] = (double(m[i][1]) - (i == 2 ? tv : 0.0)) / sv * sy;
        }

        _identity = _toTexelX[0] == 1.0 && _toTexelX[1] == 0.0 && _toTexelX[2] == 0.0 && _toTexelY[0] == 0.0 &&
                    _toTexelY[1] == 1.0 && _toTexelY[2] == 0.0;
        if (!_pixels.isEmpty()) {
            _tileX0 = floorDiv(_pixels.xMin, kTileWidth);
            _tileY0 = floorDiv(_pixels.yMin, kTileHeight);
            _tilesX = floorDiv(_pixels.xMax - 1, kTileWidth) - _tileX0 + 1;
            _tilesY = floorDiv(_pixels.yMax - 1, kTileHeight) - _tileY0 + 1;
            _tiles.resize(std::size_t(_tilesX) * std::size_t(_tilesY));
        }
    }

    void sampleAt(Color& result, const double coords[2], const GeLinearMatrix2<double>&) const override {
        TileCache cache;
        result = sample(coords[0], coords[1], cache);
    }

    // The same colours as sampleAt, without a virtual call per pixel. A row whose positions share
    // one y, in a mapping that keeps rows (every mapping the interpreter makes), works out that
    // y's part of the filter once for the row.
    void sampleRow(Color* out, const float* xs, const float* ys, const float* active, int lo, int hi) const override {
        if (lo >= hi || shiftedRow<false>(out, xs, ys, active, lo, hi)) return;
        TileCache cache;
        if (_toTexelY[0] == 0.0 && sharesOneValue(ys, lo, hi)) return sampleAlongRow(out, xs, ys[lo], active, lo, hi, cache);
        for (int x = lo; x < hi; ++x)
            if (!active || active[x] != 0.0f) out[x] = sample(double(xs[x]), double(ys[x]), cache);
    }

    void addRow(Color* out, const float* xs, const float* ys, const float* active, int lo, int hi) const override {
        if (lo >= hi || shiftedRow<true>(out, xs, ys, active, lo, hi)) return;
        SdTextureSampler::addRow(out, xs, ys, active, lo, hi);
    }

private:
    // Positions that step one pixel along a row at whole coordinates, as a script that reads its
    // neighbours asks for them (sample(src, x + i, y + j) at full resolution): each column is
    // one pixel of the image, weighed by exactly 1 as the filter weighs it, or transparent black
    // outside the image. Read along the fetched tiles' rows, without the filter's arithmetic.
    // False, having written nothing, for any other row of positions. Add: each colour is added
    // to out's (out[x] + colour), as addRow asks.
    template <bool Add>
    bool shiftedRow(Color* out, const float* xs, const float* ys, const float* active, int lo, int hi) const {
        constexpr float kExact = 1 << 22;  // whole floats this small step by one exactly
        if (!_identity || _params.filterMode != 1 || _params.wrapModeS != 0 || _params.wrapModeT != 0 || lo >= hi)
            return false;
        const float y = ys[lo], first = xs[lo];
        if (!(std::fabs(y) < kExact && std::fabs(first) < kExact && y == std::floor(y) && first == std::floor(first)))
            return false;
        // This test runs for every row of positions that the sampler is given: four columns at a
        // time, the differences gathered over the whole row and tested once (a test per block
        // cost more than the reads). The expected positions count up by four from `first`,
        // exactly, as whole floats this small do.
        int x = lo;
#if defined(__SSE2__)
        const __m128 yv = _mm_set1_ps(y), four = _mm_set1_ps(4.0f);
        __m128 expected = _mm_add_ps(_mm_set1_ps(first), _mm_setr_ps(0.0f, 1.0f, 2.0f, 3.0f));
        __m128 differs = _mm_setzero_ps();
        for (; x + 4 <= hi; x += 4) {
            differs = _mm_or_ps(differs, _mm_cmpneq_ps(_mm_loadu_ps(ys + x), yv));
            differs = _mm_or_ps(differs, _mm_cmpneq_ps(_mm_loadu_ps(xs + x), expected));
            expected = _mm_add_ps(expected, four);
        }
        if (_mm_movemask_ps(differs) != 0) return false;
#endif
        for (; x < hi; ++x)
            if (ys[x] != y || xs[x] != first + float(x - lo)) return false;
        const int row = int(y), shift = int(first) - lo;  // column x reads pixel x + shift
        auto set = [](Color& o, const Color& c) { o = Add ? o + c : c; };
        auto put = [&](int x, const Color& c) {
            if (!active || active[x] != 0.0f) set(out[x], c);
        };
        const bool rowInside = row >= _pixels.yMin && row < _pixels.yMax;
        const int inLo = rowInside ? std::clamp(_pixels.xMin - shift, lo, hi) : hi;
        const int inHi = rowInside ? std::clamp(_pixels.xMax - shift, inLo, hi) : hi;
        for (int x = lo; x < inLo; ++x) put(x, Color::ZERO);
        for (int x = inLo; x < inHi;) {
            const int i = floorDiv(x + shift, kTileWidth);
            const int end = std::min(inHi, (i + 1) * kTileWidth - shift);
            const IxTile& tile = tileAt(i, floorDiv(row, kTileHeight));
            const GeRectangle<int>& r = tile.getRect();
            if (row >= r.yMin && row < r.yMax && x + shift >= r.xMin && end + shift <= r.xMax) {
                const Color* pixels = tile.row(row) + (shift - r.xMin);
                if (!active) {
                    for (; x < end; ++x) set(out[x], pixels[x] * _unitWeight);
                } else {
                    for (; x < end; ++x) put(x, pixels[x] * _unitWeight);
                }
            } else {
                for (; x < end; ++x) put(x, texel(x + shift, row) * _unitWeight);
            }
        }
        for (int x = inHi; x < hi; ++x) put(x, Color::ZERO);
        return true;
    }

    // The filter's view of one texel coordinate: whether a tap reaches the image, the coordinate
    // clamped and snapped, its first tap and the weight of the second.
    struct Axis {
        bool reaches = false;
        double c = 0.0;
        int first = 0;
        float weight = 0.0f;
    };
    static Axis axis(double t, int lo, int hi, int wrapMode) {
        Axis a;
        a.reaches = reachesImage(t, lo, hi, wrapMode);
        if (!a.reaches) return a;
        a.c = snapTexel(onAxis(t, lo, hi, wrapMode));
        a.first = floorToInt(a.c);
        a.weight = float(a.c - double(a.first));
        return a;
    }

    // The fetched tile that the last footprint lay in, so that the next one, mostly in the same
    // tile, finds it without the lookup.
    struct TileCache {
        int i = 0, j = 0;
        const IxTile* tile = nullptr;
    };

    static bool sharesOneValue(const float* v, int lo, int hi) {
        constexpr int kBlock = 8;
        const float first = v[lo];
        int x = lo;
        for (; x + kBlock <= hi; x += kBlock) {
            int differs = 0;
KEL_IVDEP
            for (int i = 0; i < kBlock; ++i) differs |= int(v[x + i] != first);
            if (differs) return false;
        }
        for (; x < hi; ++x)
            if (v[x] != first) return false;
        return !std::isnan(first);
    }

    // ys[x] == y for every column: the vertical part is the same for all. With a mapping that keeps
    // rows, ty = x * 0 + y * m + c, where x * 0 is a zero, whose sign changes no weight, or, for a
    // position that is not finite, NaN, which reads nothing.
    void sampleAlongRow(Color* out, const float* xs, float y, const float* active, int lo, int hi, TileCache& cache) const {
        const double yd = double(y);
        const Axis ay = axis(0.0 + yd * _toTexelY[1] + _toTexelY[2], _pixels.yMin, _pixels.yMax, _params.wrapModeT);
        const double yTerm = yd * _toTexelX[1];
        if (ay.reaches && _params.filterMode == 1 && _params.wrapModeS == 0)
            return filterAlongRow(out, xs, yTerm, ay, active, lo, hi, cache);
        for (int x = lo; x < hi; ++x) {
            if (active && active[x] == 0.0f) continue;
            if (!ay.reaches || !std::isfinite(xs[x])) {
                out[x] = Color::ZERO;
                continue;
            }
            const Axis ax = axis(double(xs[x]) * _toTexelX[0] + yTerm + _toTexelX[2], _pixels.xMin, _pixels.xMax, _params.wrapModeS);
            out[x] = ax.reaches ? filter(ax, ay, cache) : Color::ZERO;
        }
    }

    // The bilinear filter along a row whose vertical part reaches the image, with outside reading
    // transparent black: the two rows of the footprint are taken from one fetched tile until the
    // footprint leaves it. Inside the reach the clamp of axis() changes nothing, so it is left out.
    void filterAlongRow(Color* out, const float* xs, double yTerm, const Axis& ay, const float* active, int lo, int hi,
                        TileCache& cache) const {
        const int y0 = ay.first;
        const bool rowsInOneTile = y0 >= _pixels.yMin && y0 + 1 < _pixels.yMax &&
                                   floorDiv(y0, kTileHeight) == floorDiv(y0 + 1, kTileHeight);
        // Footprints from `from` to `to` - 1 lie in the tile of column `i`, whose rows y0 and
        // y0 + 1 `below` and `above` are, indexed by the column.
        struct {
            int i = INT_MIN, from = 0, to = 0;
            const Color* below = nullptr;
            const Color* above = nullptr;
        } tile;
        const double reachLo = double(_pixels.xMin) - 1.0, reachHi = double(_pixels.xMax);
        for (int x = lo; x < hi; ++x) {
            if (active && active[x] == 0.0f) continue;
            const double t = double(xs[x]) * _toTexelX[0] + yTerm + _toTexelX[2];
            if (!std::isfinite(xs[x]) || !(t > reachLo && t < reachHi)) {
                out[x] = Color::ZERO;
                continue;
            }
            Axis ax;
            ax.reaches = true;
            ax.c = snapTexel(t);
            ax.first = floorToInt(ax.c);
            ax.weight = float(ax.c - double(ax.first));
            const int x0 = ax.first;
            if (rowsInOneTile && x0 >= _pixels.xMin && x0 + 1 < _pixels.xMax) {
                const int i = floorDiv(x0, kTileWidth);
                if (i != tile.i) {
                    const IxTile& t = tileAt(i, floorDiv(y0, kTileHeight));
                    const GeRectangle<int>& r = t.getRect();
                    tile.i = i;
                    tile.from = std::max({i * kTileWidth, _pixels.xMin, r.xMin});
                    tile.to = std::min({(i + 1) * kTileWidth, _pixels.xMax, r.xMax}) - 1;
                    if (y0 < r.yMin || y0 + 1 >= r.yMax) tile.to = tile.from;
                    tile.below = t.row(y0) - r.xMin;
                    tile.above = t.row(y0 + 1) - r.xMin;
                }
                if (x0 >= tile.from && x0 < tile.to) {
                    out[x] = bilinear(tile.below + x0, tile.above + x0, ax.weight, ay.weight);
                    continue;
                }
            }
            out[x] = filter(ax, ay, cache);
        }
    }

    // The four taps around a position, those of weight zero left out, so that a sample on a pixel
    // centre is that pixel exactly even beside an infinite or NaN neighbour.
    [[gnu::always_inline]] static inline Color bilinear(const Color* below, const Color* above, float fx, float fy) {
        Color acc = below[0] * ((1.0f - fx) * (1.0f - fy));
        if (fx != 0.0f) acc = acc + below[1] * (fx * (1.0f - fy));
        if (fy != 0.0f) acc = acc + above[0] * ((1.0f - fx) * fy);
        if (fx != 0.0f && fy != 0.0f) acc = acc + above[1] * (fx * fy);
        return acc;
    }

    // Inlined into sampleRow: a colour returned through the stack per pixel cost a third of E7.
    [[gnu::always_inline]] inline Color sample(double x, double y, TileCache& cache) const {
        const double tx = x * _toTexelX[0] + y * _toTexelX[1] + _toTexelX[2];
        const double ty = x * _toTexelY[0] + y * _toTexelY[1] + _toTexelY[2];
        const Axis ax = axis(tx, _pixels.xMin, _pixels.xMax, _params.wrapModeS);
        const Axis ay = axis(ty, _pixels.yMin, _pixels.yMax, _params.wrapModeT);
        if (!ax.reaches || !ay.reaches) return Color::ZERO;
        return filter(ax, ay, cache);
    }

    [[gnu::always_inline]] inline Color filter(const Axis& ax, const Axis& ay, TileCache& cache) const {
        if (_params.filterMode != 1) return texel(floorToInt(ax.c + 0.5), floorToInt(ay.c + 0.5));
        const int x0 = ax.first, y0 = ay.first;
        const float fx = ax.weight, fy = ay.weight;
        // Taps of weight zero are skipped, so that a sample on a pixel centre is that pixel
        // exactly even beside an infinite or NaN neighbour.
        const Color* below = nullptr;
        const Color* above = nullptr;
        // The usual case, without the per-tap checks of texel: the same four pixels.
        if (footprintInOneTile(x0, y0, below, above, cache)) return bilinear(below, above, fx, fy);
        Color acc = texel(x0, y0) * ((1.0f - fx) * (1.0f - fy));
        if (fx != 0.0f) acc = acc + texel(x0 + 1, y0) * (fx * (1.0f - fy));
        if (fy != 0.0f) acc = acc + texel(x0, y0 + 1) * ((1.0f - fx) * fy);
        if (fx != 0.0f && fy != 0.0f) acc = acc + texel(x0 + 1, y0 + 1) * (fx * fy);
        return acc;
    }

    // True when pixels (x0, y0) to (x0 + 1, y0 + 1) all lie inside the image and inside one
    // fetched tile, whose rows y0 and y0 + 1 then start at `below` and `above` (at column x0).
    bool footprintInOneTile(int x0, int y0, const Color*& below, const Color*& above, TileCache& cache) const {
        if (x0 < _pixels.xMin || x0 + 1 >= _pixels.xMax || y0 < _pixels.yMin || y0 + 1 >= _pixels.yMax) return false;
        const int i = floorDiv(x0, kTileWidth), j = floorDiv(y0, kTileHeight);
        if (floorDiv(x0 + 1, kTileWidth) != i || floorDiv(y0 + 1, kTileHeight) != j) return false;
        if (!cache.tile || cache.i != i || cache.j != j) cache = {i, j, &tileAt(i, j)};
        const IxTile& tile = *cache.tile;
        const GeRectangle<int>& r = tile.getRect();
        if (x0 < r.xMin || x0 + 1 >= r.xMax || y0 < r.yMin || y0 + 1 >= r.yMax) return false;
        below = tile.row(y0) + (x0 - r.xMin);
        above = tile.row(y0 + 1) + (x0 - r.xMin);
        return true;
    }

    // floor for the clamped texel coordinates (within an int), without a library call.
    static int floorToInt(double t) {
        const int i = int(t);
        return i - (t < double(i) ? 1 : 0);
    }

    // False when no tap of a bilinear read at t lies in [lo, hi) (under kWrapFill), NaN included;
    // repeat and mirror have no place for an infinite t.
    static bool reachesImage(double t, int lo, int hi, int wrapMode) {
        if (hi <= lo) return false;
        switch (wrapMode) {
            case SdTextureParams::kWrapClamp: return !std::isnan(t);
            case SdTextureParams::kWrapRepeat:
            case SdTextureParams::kWrapMirror: return std::isfinite(t);
            default: return t > double(lo) - 1.0 && t < double(hi);
        }
    }
    // The image's period along an axis of n pixels: n repeated, 2n mirrored, none otherwise.
    static int period(int lo, int hi, int wrapMode) {
        if (wrapMode == SdTextureParams::kWrapRepeat) return hi - lo;
        if (wrapMode == SdTextureParams::kWrapMirror) return 2 * (hi - lo);
        return 0;
    }
    // t brought into [lo, lo + period) when the axis repeats; otherwise clamped so that the
    // conversion to int stays defined (clampTexel).
    static double onAxis(double t, int lo, int hi, int wrapMode) {
        const int n = period(lo, hi, wrapMode);
        if (n == 0) return clampTexel(t, lo, hi);
        double r = std::fmod(t - double(lo), double(n));
        if (r < 0.0) r += double(n);
        // A remainder just below 0, plus n, can round to n itself: that place is the period's start.
        return double(lo) + (r < double(n) ? r : 0.0);
    }
    // The pixel that index i reads along an axis, or i itself when it is outside and the axis
    // neither clamps nor repeats.
    static int pixelIndex(int i, int lo, int hi, int wrapMode) {
        if (wrapMode == SdTextureParams::kWrapClamp) return std::min(std::max(i, lo), hi - 1);
        const int n = period(lo, hi, wrapMode);
        if (n == 0) return i;
        const int k = ((i - lo) % n + n) % n;
        return lo + (k < hi - lo ? k : n - 1 - k);
    }
    // A pixel's own nominal x is px / scale * aspect in float (the interpreter's `x` row), so with an
    // aspect such as 4/3 it comes back a float rounding or two away from px; within two float
    // ulps of an integer the coordinate is that integer, and the sample is the pixel itself
    // rather than a blend with a weight of 1e-7. Finer than that a float position can't say.
    static double snapTexel(double t) {
        constexpr double kTwoFloatUlps = 1.0 / double(1 << 22);
        // floor(t + 0.5) is the nearest integer but at halves, which are never within reach.
        const double nearest = double(floorToInt(t + 0.5));
        return std::abs(t - nearest) <= kTwoFloatUlps * std::max(1.0, std::abs(t)) ? nearest : t;
    }
    // Keeps the conversion to int defined; inside (lo - 1, hi) nothing changes.
    static double clampTexel(double t, int lo, int hi) { return std::min(std::max(t, double(lo) - 2.0), double(hi) + 1.0); }

    Color texel(int x, int y) const {
        x = pixelIndex(x, _pixels.xMin, _pixels.xMax, _params.wrapModeS);
        y = pixelIndex(y, _pixels.yMin, _pixels.yMax, _params.wrapModeT);
        if (x < _pixels.xMin || x >= _pixels.xMax || y < _pixels.yMin || y >= _pixels.yMax) return Color::ZERO;
        const IxTile& tile = tileAt(floorDiv(x, kTileWidth), floorDiv(y, kTileHeight));
        const GeRectangle<int>& r = tile.getRect();
        // A node that gives less than the requested tile: the missing pixels are fill.
        if (x < r.xMin || x >= r.xMax || y < r.yMin || y >= r.yMax) return tile.getFillColor();
        return tile.row(y)[x - r.xMin];
    }

    const IxTile& tileAt(int i, int j) const {
        RCShdPtr<IxTile>& slot = _tiles[std::size_t(j - _tileY0) * std::size_t(_tilesX) + std::size_t(i - _tileX0)];
        if (!slot) {
            PxImageContext context = _tileContext;
            context.tileX = i;
            context.tileY = j;
            slot = _node->getImage(context).getTile();
            if (!slot) slot = RCShdPtr<IxTile>(new IxTile(IxPixelFormat{}, GeRectangle<int>(), Color::ZERO));
        }
        return *slot;
    }

    PxNodePtr<const PxImageProtocol> _node;
    SdTextureParams _params;
    PxImageContext _tileContext;
    GeRectangle<int> _pixels;  // the image at the context's scale
    double _toTexelX[3] = {1, 0, 0};  // tx = x * [0] + y * [1] + [2]
    double _toTexelY[3] = {0, 1, 0};
    bool _identity = false;  // texel coordinates are the positions themselves
    // The filter's weight of a tap on a pixel centre, 1, as a value the compiler cannot see: the
    // filter multiplies by its weights at run time, which changes a signalling NaN's bits, and a
    // neighbourhood read must give the filter's bits.
    float _unitWeight = 1.0f;
    int _tileX0 = 0, _tileY0 = 0, _tilesX = 0, _tilesY = 0;
    mutable std::vector<RCShdPtr<IxTile>> _tiles;
};

}  // namespace

PxImageTexture::PxImageTexture(const PxNodePtr<const PxImageProtocol>& node, const PxTimeScaleContext& context,
                               const SdTextureParams& params)
    : _node(node), _context(context), _params(params) {}

RCStrongPtr<const SdTextureSampler> PxImageTexture::createSampler() const {
    return RCStrongPtr<const SdTextureSampler>(new PxTileSampler(_node, _context, _params));
}

}  // namespace Zt
