// Where compilation errors point (the token an error names, or where the parser stopped), and
// what rand() depends on beyond what the golden scripts show: the frame, not the frames rendered
// before it; the seed and the time.
#include <gtest/gtest.h>

#include "kelEvalTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

Vector<PebParameterInfo> nodeParameters() { return {imageInput("src"), colorOutput("out")}; }

struct PositionCase {
    const char* script;
    const char* message;
    int line;                  // the message's own line
    PebSourcePosition points;  // where it points
};

// clang-format off
const PositionCase kPositionCases[] = {
    // The parser stops at the next statement, after a blank line and a comment.
    {"float a = 1\n\n// note\n  out = color(a, a, a, 1);\n",
     "Syntax Error: Invalid statement, expected ; at line 4", 4, {4, 3}},
    // The end of the input points right after the last token, on a line that exists.
    {"void main(output color out)\n{\n    out = color(1, 1, 1, 1);\n",
     "Syntax Error: Invalid statement block at line 4", 4, {3, 29}},
    {"out = color(1, 1, 1, 1);\n  /* open\n never",
     "Syntax Error: Unterminated comment at line 3", 3, {2, 3}},
    {"out = color(Sin(x), 0, 0, 1);", "Function undefined : Sin at line 1", 1, {1, 13}},
    // A tab is one column, and so is each character of a UTF-8 comment.
    {"out = \tv;", "Variable not defined: v at line 1", 1, {1, 8}},
    {"/* \xC3\xA9 \xC3\xBC */ out = color(x, y, q, 1);", "Variable not defined: q at line 1", 1, {1, 29}},
    {"/* one\n  two */ out = w;", "Variable not defined: w at line 2", 2, {2, 16}},
    // A declaration points at its name, even on another line than its type.
    {"float\n  t = 2;", "Variable already defined: t at line 1", 1, {2, 3}},
    {"const float k = 1;\nk = 2;", "Cannot assign a const variable: k at line 2", 2, {2, 1}},
    {"out = abs(src);", "No overloaded function for 'abs' match the argument list at line 1", 1, {1, 7}},
    {"out = color(1, 1, 1, 1) < 1;", "Operator < not valid on color type at line 1", 1, {1, 25}},
    {"void main(input float gain, output color out) { out = color(gain, 0, 0, 1); }",
     "Parameter gain is not a valid parameter", 0, {1, 23}},
    {"void effect(output color out) { out = color(1, 1, 1, 1); }", "Function main is not found", 0, {1, 6}},
};
// clang-format on

TEST(KelErrorPositions, PointAtTheTokenTheyName) {
    const KelInterpreter interpreter;
    for (const PositionCase& c : kPositionCases) {
        SCOPED_TRACE(c.script);
        Vector<PebError> errors;
        interpreter.parse(c.script, interpreter.createRunInfo(nodeParameters()), &errors);
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_EQ(errors[0].getMessage(), c.message);
        EXPECT_EQ(errors[0].getLine(), c.line);
        EXPECT_EQ(errors[0].getPosition().line, c.points.line);
        EXPECT_EQ(errors[0].getPosition().column, c.points.column);
    }
}

// ---- rand ---------------------------------------------------------------------------------------

constexpr int kWidth = 9, kHeight = 5;

// A script whose every pixel is random: two calls, one of them in a loop of a pixel-dependent
// number of passes, one under a mask.
const char* const kNoise =
    "float s = 0;\n"
    "for (float i = 0; i <= x; i++) s += rand();\n"
    "if (y > 1) s += 10 * rand();\n"
    "out = color(rand(), s, t, 1);\n";

class Renderer {
public:
    Renderer() : _run(_interpreter.createRunInfo({colorOutput("out")})) {
        Vector<PebError> errors;
        EXPECT_TRUE(_interpreter.parse(kNoise, _run, &errors));
    }
    // Frame `time`, in tiles of the given size.
    std::vector<Color> frame(double time, unsigned seed, int tileWidth, int tileHeight) const {
        std::vector<Color> pixels(kWidth * kHeight);
        for (int ty = 0; ty * tileHeight < kHeight; ++ty)
            for (int tx = 0; tx * tileWidth < kWidth; ++tx) {
                PxImageContext context = tileContext(tx, ty, tileWidth, tileHeight, 0, time);
                context.seed = seed;
                const PxImageResult result = _interpreter.eval(_run, {}, {}, rodOf(kWidth, kHeight), IxPixelFormat{}, context);
                const GeRectangle<int>& r = result.getTile()->getRect();
                for (int y = r.yMin; y < r.yMax; ++y)
                    for (int x = r.xMin; x < r.xMax; ++x) pixels[std::size_t(y * kWidth + x)] = pixelOf(result, x, y);
            }
        return pixels;
    }

private:
    KelInterpreter _interpreter;
    RCShdPtr<PebRunInfo> _run;
};

int differing(const std::vector<Color>& a, const std::vector<Color>& b) {
    int n = 0;
    for (std::size_t i = 0; i < a.size(); ++i) n += !(a[i] == b[i]);
    return n;
}

// A frame alone, in small tiles, is the same frame rendered third in a sequence in wide tiles.
TEST(KelRandReproducible, AFrameAloneIsTheFrameWithinASequence) {
    const Renderer alone, sequence;
    const std::vector<Color> single = alone.frame(7, 3, 2, 2);
    sequence.frame(5, 3, 16, 5);
    sequence.frame(6, 3, 16, 5);
    EXPECT_EQ(differing(sequence.frame(7, 3, 16, 5), single), 0);
}

// Another seed or another time gives other numbers at (nearly) every pixel.
TEST(KelRandReproducible, SeedAndTimeChooseTheNumbers) {
    const Renderer renderer;
    const std::vector<Color> base = renderer.frame(7, 3, 4, 4);
    EXPECT_GE(differing(renderer.frame(7, 4, 4, 4), base), kWidth * kHeight - 1);
    std::vector<Color> later = renderer.frame(8, 3, 4, 4);
    for (Color& c : later) c.b = 7;  // t itself is in the picture
    EXPECT_GE(differing(later, base), kWidth * kHeight - 1);
}

}  // namespace
