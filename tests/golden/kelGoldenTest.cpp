// The golden suite: every *.kel file of tests/golden is one case, compiled by KelInterpreter::parse
// (Part 1.1) and, when it expects pixels, rendered by eval (Part 1.2) with tile widths of 1, 7,
// 64 columns and the whole row, which must all give the expected pixels. The expectations stand
// in the script's own leading comments, one per line:
//
//   // param: float NAME VALUE       an input float and its value
//   // param: image NAME W H         an input image of W x H pixels, pixel (x, y) = (x, y, 0.25, 1)
//   // param: output color NAME      the varying output (also: output float / output image)
//   // size: W H                     the output's rectangle in pixels (default 6 x 4)
//   // result: true|false            what parse returns (default: true when no error is expected)
//   // error: LINE MESSAGE           an expected error, in order; the list must match exactly
//   // all: R G B A                  every output pixel
//   // row: Y R G B A                every pixel of row Y
//   // pixel: X Y R G B A            one pixel
//   // cancelled: N                  eval is cancelled through PxRequestMgr once N checks have
//                                    passed (a script that loops for ever, host.md)
//
// Without `param:` lines the node has one varying output `out`. Pixels match within 1e-5.
// Each width is also rendered on 3 threads at once, which must give the same pixels.
//
// The driver also runs every ```kel block of docs/language.md (the guide's examples) with the
// node parameters of the block's first line, `// params: -i NAME -f NAME[=VALUE] -c NAME
// --out NAME` in the manner of the kel command (an image is 6 x 4 pixels, pixel (x, y) =
// (x, y, 0.25, 1)). A block may state `size:`, `error:`, `result:`, `all:`, `row:` and `pixel:`
// lines as above; without `error:` lines parse must succeed with no error. Every example is
// rendered with every tile width, alike.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <regex>
#include <fstream>
#include <sstream>
#include <thread>

#include "PxMemoryImage.h"
#include "kelFunctions.h"
#include "kelInterpreter.h"

using namespace Zt;

namespace {

struct Parameter {
    PebParameterInfo info;
    double value = 0;
    int width = 0, height = 0;
};

struct PixelExpectation {
    enum Kind { All, Row, Pixel } kind;
    int x = 0, y = 0;
    Color color;
};

struct Case {
    std::string path;
    std::string script;
    std::vector<Parameter> parameters;
    int width = 6, height = 4;
    bool resultGiven = false, result = true;
    std::vector<PebError> errors;
    std::vector<PixelExpectation> pixels;
    long long cancelAfter = -1;  // `cancelled:`, the check budget
    bool render = false;         // render even without pixel expectations (the guide's examples)
    std::string malformed;       // a guide example's `// params:` line that can't be read
};

// The expectation lines of a script (`size:`, `result:`, `error:`, `all:`, `row:`, `pixel:`,
// `cancelled:`, and `param:` when `parameters` is true) into `c`.
void readExpectations(Case& c, bool parameters) {
    std::istringstream lines(c.script);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("//", 0) != 0) continue;
        std::istringstream words(line.substr(2));
        std::string key;
        words >> key;
        if (key == "param:" && parameters) {
            std::string first, type, name;
            words >> first;
            const bool output = first == "output";
            type = output ? (words >> type, type) : first;
            words >> name;
            const auto kind = type == "float" ? PebInterpreterTypes::Float
                              : type == "image" ? PebInterpreterTypes::Image
                                                : PebInterpreterTypes::Color;
            Parameter p{PebParameterInfo(name, kind, output, output)};
            if (!output && kind == PebInterpreterTypes::Float) words >> p.value;
            if (!output && kind == PebInterpreterTypes::Image) words >> p.width >> p.height;
            c.parameters.push_back(p);
        } else if (key == "cancelled:") {
            words >> c.cancelAfter;
        } else if (key == "size:") {
            words >> c.width >> c.height;
        } else if (key == "result:") {
            std::string value;
            words >> value;
            c.resultGiven = true;
            c.result = value == "true";
        } else if (key == "error:") {
            int errorLine;
            words >> errorLine;
            std::string message;
            std::getline(words >> std::ws, message);
            c.errors.push_back(PebError(message, errorLine));
        } else if (key == "all:" || key == "row:" || key == "pixel:") {
            PixelExpectation e{key == "all:" ? PixelExpectation::All
                               : key == "row:" ? PixelExpectation::Row
                                               : PixelExpectation::Pixel,
                               0, 0, Color()};
            if (e.kind == PixelExpectation::Pixel) words >> e.x;
            if (e.kind != PixelExpectation::All) words >> e.y;
            words >> e.color.r >> e.color.g >> e.color.b >> e.color.a;
            c.pixels.push_back(e);
        }
    }
}

Case load(const std::string& path) {
    Case c;
    c.path = path;
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    c.script = text.str();
    readExpectations(c, true);
    if (c.parameters.empty()) c.parameters.push_back({PebParameterInfo("out", PebInterpreterTypes::Color, true, true)});
    if (!c.resultGiven) c.result = c.errors.empty();
    return c;
}

std::vector<std::string> casePaths() {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(KEL_GOLDEN_DIR))
        if (entry.path().extension() == ".kel") paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::string caseName(const testing::TestParamInfo<std::string>& info) {
    std::string name = std::filesystem::path(info.param).stem().string();
    for (char& ch : name)
        if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return name;
}

// The whole output, rendered tile by tile with tiles `tileWidth` columns wide, the tiles shared
// out among `threads` threads (one run info, evaluated concurrently as the host does).
std::vector<Color> render(const KelInterpreter& interpreter, const RCShdPtr<PebRunInfo>& runInfo, const Case& c,
                          int tileWidth, int threads = 1) {
    Vector<PxNodePtr<const PxImageProtocol>> inputs;
    Vector<double> params;
    for (const Parameter& p : c.parameters) {
        if (p.info.isOutput()) continue;
        if (p.info.getType() == PebInterpreterTypes::Float) params.push_back(p.value);
        if (p.info.getType() == PebInterpreterTypes::Image) {
            std::vector<Color> pixels;
            for (int y = 0; y < p.height; ++y)
                for (int x = 0; x < p.width; ++x) pixels.push_back(Color(float(x), float(y), 0.25f, 1.0f));
            inputs.push_back(new PxMemoryImage(p.width, p.height, pixels));
        }
    }
    const PxRODResult rod{PxValidityInterval::getFull(), GeRectangle<float>(0, float(c.width), 0, float(c.height))};
    std::vector<Color> image(std::size_t(c.width) * std::size_t(c.height), Color(-1, -1, -1, -1));
    std::vector<std::pair<int, int>> tiles;
    const int tileHeight = 3;  // rows split across tiles too
    for (int ty = 0; ty * tileHeight < c.height; ++ty)
        for (int tx = 0; tx * tileWidth < c.width; ++tx) tiles.emplace_back(tx, ty);
    const auto work = [&](std::size_t first) {
        for (std::size_t i = first; i < tiles.size(); i += std::size_t(threads)) {
            PxImageContext context;
            context.tileWidth = tileWidth;
            context.tileHeight = tileHeight;
            context.tileX = tiles[i].first;
            context.tileY = tiles[i].second;
            PxImageResult result = interpreter.eval(runInfo, inputs, params, rod, IxPixelFormat{}, context);
            const IxTile& tile = *result.getTile();
            const GeRectangle<int>& r = tile.getRect();
            for (int y = r.yMin; y < r.yMax; ++y)
                for (int x = r.xMin; x < r.xMax; ++x)
                    image[std::size_t(y) * std::size_t(c.width) + std::size_t(x)] = tile.row(y)[x - r.xMin];
        }
    };
    if (threads == 1) {
        work(0);
    } else {
        std::vector<std::thread> pool;
        std::vector<std::exception_ptr> failures(static_cast<std::size_t>(threads));
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                try {
                    work(std::size_t(t));
                } catch (...) {
                    failures[std::size_t(t)] = std::current_exception();
                }
            });
        for (std::thread& thread : pool) thread.join();
        for (const std::exception_ptr& failure : failures)
            if (failure) std::rethrow_exception(failure);
    }
    return image;
}

bool near(const Color& a, const Color& b) {
    auto close = [](float p, float q) { return p == q || std::fabs(p - q) <= 1e-5f * std::max(1.0f, std::fabs(q)); };
    return close(a.r, b.r) && close(a.g, b.g) && close(a.b, b.b) && close(a.a, b.a);
}

std::string show(const Color& c) {
    std::ostringstream out;
    out << "(" << c.r << ", " << c.g << ", " << c.b << ", " << c.a << ")";
    return out.str();
}

class KelGolden : public testing::TestWithParam<std::string> {};


void runCase(const Case& c) {
    SCOPED_TRACE(c.path);
    const KelInterpreter interpreter;
    Vector<PebParameterInfo> infos;
    for (const Parameter& p : c.parameters) infos.push_back(p.info);
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(infos);
    Vector<PebError> errors;
    const bool ok = interpreter.parse(c.script, runInfo, &errors);
    EXPECT_EQ(ok, c.result);
    EXPECT_EQ(errors.size(), c.errors.size());
    for (std::size_t i = 0; i < std::max(errors.size(), c.errors.size()); ++i) {
        const std::string got = i < errors.size() ? std::to_string(errors[i].getLine()) + " " + errors[i].getMessage() : "none";
        const std::string want =
            i < c.errors.size() ? std::to_string(c.errors[i].getLine()) + " " + c.errors[i].getMessage() : "none";
        EXPECT_EQ(got, want) << "error " << i;
    }
    if (!ok) {
        EXPECT_TRUE(c.pixels.empty()) << "pixels are expected but the script doesn't compile";
        return;
    }
    if (c.cancelAfter >= 0) {
        PxRequestMgr::getInstance().setCheckBudget(c.cancelAfter);
        EXPECT_THROW(render(interpreter, runInfo, c, c.width), ExCancelled);
        PxRequestMgr::getInstance().setCheckBudget(-1);
        return;
    }
    if (c.pixels.empty() && !c.render) return;
    const int widths[] = {1, 7, 64, c.width};
    std::vector<Color> first;
    for (int tileWidth : widths) {
        SCOPED_TRACE("tile width " + std::to_string(tileWidth));
        const std::vector<Color> image = render(interpreter, runInfo, c, tileWidth);
        // Every tile width gives the very same pixels, and every pixel is written.
        if (first.empty()) first = image;
        const std::vector<Color> threaded = render(interpreter, runInfo, c, tileWidth, 3);
        for (std::size_t i = 0; i < image.size(); ++i) {
            ASSERT_TRUE(image[i] == first[i]) << "pixel " << i << " differs from tile width 1";
            ASSERT_TRUE(threaded[i] == image[i]) << "pixel " << i << " differs on 3 threads";
            ASSERT_FALSE(image[i] == Color(-1, -1, -1, -1)) << "pixel " << i << " not written";
        }
        int failures = 0;
        for (int y = 0; y < c.height && failures < 5; ++y)
            for (int x = 0; x < c.width && failures < 5; ++x) {
                const Color& got = image[std::size_t(y) * std::size_t(c.width) + std::size_t(x)];
                for (const PixelExpectation& e : c.pixels) {
                    const bool applies = e.kind == PixelExpectation::All ||
                                         (e.kind == PixelExpectation::Row && e.y == y) ||
                                         (e.kind == PixelExpectation::Pixel && e.x == x && e.y == y);
                    if (applies && !near(got, e.color)) {
                        ADD_FAILURE() << "pixel (" << x << ", " << y << "): " << show(got) << ", expected " << show(e.color);
                        ++failures;
                    }
                }
            }
    }
}

// The guide's examples (docs/language.md): each ```kel block, its first line `// params: ...`.
std::vector<Case> guideExamples() {
    std::ifstream file(KEL_LANGUAGE_GUIDE);
    std::vector<Case> examples;
    std::string line;
    int number = 0;
    while (std::getline(file, line)) {
        ++number;
        if (line != "```kel") continue;
        Case c;
        c.path = std::string(KEL_LANGUAGE_GUIDE) + ":" + std::to_string(number + 1);
        while (std::getline(file, line) && (++number, line != "```")) c.script += line + "\n";
        c.render = true;
        std::istringstream words(c.script.substr(0, c.script.find('\n')));
        std::string word, output = "out";
        words >> word;
        if (word != "//" || !(words >> word) || word != "params:") c.malformed = "no // params: line";
        for (std::string option, value; words >> option >> value;) {
            const std::string name = value.substr(0, value.find('='));
            const std::string given = value.find('=') == std::string::npos ? "0" : value.substr(value.find('=') + 1);
            if (option == "-i") c.parameters.push_back({PebParameterInfo(name, PebInterpreterTypes::Image, false, false), 0, 6, 4});
            else if (option == "-f") c.parameters.push_back({PebParameterInfo(name, PebInterpreterTypes::Float, false, false), std::stod(given)});
            else if (option == "-c") c.parameters.push_back({PebParameterInfo(name, PebInterpreterTypes::Color, false, false)});
            else if (option == "--out") output = value;
            else c.malformed = "unknown option " + option;
        }
        c.parameters.push_back({PebParameterInfo(output, PebInterpreterTypes::Color, true, true)});
        readExpectations(c, false);
        if (!c.resultGiven) c.result = c.errors.empty();
        examples.push_back(c);
    }
    return examples;
}

std::vector<int> guideIndexes() {
    std::vector<int> indexes(guideExamples().size());
    for (std::size_t i = 0; i < indexes.size(); ++i) indexes[i] = int(i);
    return indexes;
}

class KelLanguageGuide : public testing::TestWithParam<int> {};

}  // namespace

TEST_P(KelGolden, Case) { runCase(load(GetParam())); }

// An example of the guide compiles with exactly the errors it states (none unless it has
// `// error:` lines), renders alike with every tile width, and gives the pixels it states.
TEST_P(KelLanguageGuide, Example) {
    Case c = guideExamples()[std::size_t(GetParam())];
    ASSERT_TRUE(c.malformed.empty()) << c.path << ": " << c.malformed;
    runCase(c);
}

TEST(KelLanguageGuide, HasExamples) { EXPECT_GE(guideExamples().size(), 1u); }

// Every name of the engine's catalogue is called in some example of the guide, and so is run by
// Example above.
TEST(KelLanguageGuide, EveryBuiltInIsCalledInAnExample) {
    const std::vector<Case> examples = guideExamples();
    for (const auto& [name, factory] : KelFunctionTable::functions) {
        const std::regex call("(^|[^A-Za-z0-9_])" + name + "[ \\t]*\\(");
        const bool called = std::any_of(examples.begin(), examples.end(), [&](const Case& c) {
            std::string code;  // the script without its comments
            std::istringstream lines(c.script);
            for (std::string line; std::getline(lines, line);) code += line.substr(0, line.find("//")) + "\n";
            return std::regex_search(code, call);
        });
        EXPECT_TRUE(called) << name << " has no example in the guide";
    }
}

INSTANTIATE_TEST_SUITE_P(Scripts, KelGolden, testing::ValuesIn(casePaths()), caseName);
INSTANTIATE_TEST_SUITE_P(Examples, KelLanguageGuide, testing::ValuesIn(guideIndexes()),
                         [](const testing::TestParamInfo<int>& info) { return "example" + std::to_string(info.param + 1); });
