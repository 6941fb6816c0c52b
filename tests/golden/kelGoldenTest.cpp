// The golden suite: every *.kel file here holds cases separated by a line `// ----`. Each case
// is compiled by KelInterpreter::parse and, when it expects pixels, rendered by eval with tiles
// 1, 7 and 64 columns wide and as wide as the row, on one thread and on three: all must give the
// same bits. Its comment lines state the node and the expectations (lines count from the case's
// first line; pixels match within 1e-5 relative, nan matches nan):
//   // param: float NAME VALUE | image NAME W H | output color NAME    (default: output color out)
//         an input image's pixel (x, y) is (x, y, 0.25, 1)
//   // size: W H (default 6 4)   // aspect: N D   // scale: LEVEL   // time: T
//   // result: true|false        // error: LINE MESSAGE (in order, the whole list)
//   // all: R G B A   // pixel: X Y R G B A   // row: Y R G B A
//   // row Y: R,G,B,A xN ...     runs from the left, N pixels each (default 1), covering the row
//   // print: TEXT               the tree's print, whitespace runs as one space, holds TEXT
//                                (`throws`: printing throws)
//   // cancelled: N              eval is cancelled once N cancellation checks have passed
// The ```kel blocks of docs/language.md run too, with the parameters of their first line,
// `// params: -i NAME -f NAME[=VALUE] -c NAME --out NAME` as the kel command takes them (an
// image is 6 x 4 pixels); and every built-in must be called by a case whose pixels are checked.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
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
    int x = -1, y = -1;  // -1: every column, every row
    Color color;
};

struct Case {
    std::string name, where, script;
    std::vector<Parameter> parameters;
    int width = 6, height = 4, scaleLevel = 0;
    IxPixelFormat format;
    double time = 0;
    bool resultGiven = false, result = true;
    std::vector<PebError> errors;
    std::vector<PixelExpectation> pixels;
    std::vector<std::string> printed;
    long long cancelAfter = -1;
    bool render = false;       // render even without pixel expectations (the guide's examples)
    std::string malformed;     // an expectation line that can't be read
};

// The output's pixel rectangle: W x H pixels of the case's aspect, at its scale level.
GeRectangle<int> pixelRect(const Case& c) {
    const GeRectangle<float> nominal(0, float(c.width) * c.format.aspect(), 0, float(c.height));
    return PxImageProtocol::nominalToPixelized(nominal, c.format.aspect(), 1.0f / float(1 << c.scaleLevel));
}

float number(const std::string& word) { return word == "nan" ? NAN : std::strtof(word.c_str(), nullptr); }

Color colorOf(std::istream& words) {
    std::string r, g, b, a;
    words >> r >> g >> b >> a;
    return Color(number(r), number(g), number(b), number(a));
}

// `R,G,B,A xN ...` into the pixels of row y; gives the number of pixels.
int readRuns(Case& c, int y, std::istream& words) {
    int x = 0;
    for (std::string word; words >> word;) {
        if (word[0] == 'x' && x > 0) {
            const int count = std::stoi(word.substr(1));
            for (int i = 1; i < count; ++i) c.pixels.push_back({x++, y, c.pixels.back().color});
            continue;
        }
        std::replace(word.begin(), word.end(), ',', ' ');
        std::istringstream channels(word);
        c.pixels.push_back({x++, y, colorOf(channels)});
    }
    return x;
}

void readExpectations(Case& c, bool parameters) {
    std::istringstream lines(c.script);
    std::vector<std::pair<int, std::string>> rowWidths;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("//", 0) != 0) continue;
        if (line.back() == '\r') line.pop_back();
        std::istringstream words(line.substr(2));
        std::string key;
        words >> key;
        if (key == "param:" && parameters) {
            std::string first, type, name;
            words >> first;
            const bool output = first == "output";
            type = output ? (words >> type, type) : first;
            words >> name;
            const auto kind = type == "float"   ? PebInterpreterTypes::Float
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
        } else if (key == "aspect:") {
            words >> c.format.aspectNum >> c.format.aspectDen;
        } else if (key == "scale:") {
            words >> c.scaleLevel;
        } else if (key == "time:") {
            words >> c.time;
        } else if (key == "result:") {
            std::string value;
            words >> value;
            c.resultGiven = true;
            c.result = value == "true";
        } else if (key == "error:") {
            int errorLine = 0;
            std::string message;
            std::getline(words >> errorLine >> std::ws, message);
            c.errors.push_back(PebError(message, errorLine));
        } else if (key == "print:") {
            std::string text;
            std::getline(words >> std::ws, text);
            c.printed.push_back(text);
        } else if (key == "all:") {
            c.pixels.push_back({-1, -1, colorOf(words)});
        } else if (key == "pixel:" || key == "row:") {
            PixelExpectation e;
            if (key == "pixel:") words >> e.x;
            words >> e.y;
            e.color = colorOf(words);
            c.pixels.push_back(e);
        } else if (key == "row") {
            std::string y;
            words >> y;
            if (y.empty() || y.back() != ':') c.malformed = "bad row line: " + line;
            else rowWidths.push_back({readRuns(c, std::stoi(y), words), line});
        }
    }
    for (const auto& [width, line] : rowWidths)
        if (width != pixelRect(c).width()) c.malformed = "the runs don't cover the row: " + line;
    if (!c.resultGiven) c.result = c.errors.empty();
}

// The cases of every file of the directory, in file order.
std::vector<Case> goldenCases() {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(KEL_GOLDEN_DIR))
        if (entry.path().extension() == ".kel") paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::vector<Case> cases;
    for (const auto& path : paths) {
        std::ifstream file(path, std::ios::binary);
        std::vector<Case> inFile(1);
        int number = 0, first = 1;
        for (std::string line; std::getline(file, line);) {
            ++number;
            if (line.rfind("// ----", 0) == 0) {
                inFile.emplace_back();
                first = number + 1;
                continue;
            }
            if (inFile.back().script.empty()) inFile.back().where = path.string() + ":" + std::to_string(first);
            inFile.back().script += line + "\n";
        }
        for (std::size_t i = 0; i < inFile.size(); ++i) {
            Case& c = inFile[i];
            c.name = path.stem().string() + (inFile.size() > 1 ? "_" + std::to_string(i + 1) : "");
            readExpectations(c, true);
            if (c.parameters.empty())
                c.parameters.push_back({PebParameterInfo("out", PebInterpreterTypes::Color, true, true)});
            cases.push_back(c);
        }
    }
    return cases;
}

// The whole output, rendered tile by tile with tiles `tileWidth` columns wide, the tiles shared
// out among `threads` threads (one run info, evaluated concurrently as the host does).
std::vector<Color> render(const KelInterpreter& interpreter, const RCShdPtr<PebRunInfo>& runInfo, const Case& c,
                          int tileWidth, int threads) {
    Vector<PxNodePtr<const PxImageProtocol>> inputs;
    Vector<double> params;
    for (const Parameter& p : c.parameters) {
        if (p.info.isOutput()) continue;
        if (p.info.getType() == PebInterpreterTypes::Float) params.push_back(p.value);
        if (p.info.getType() == PebInterpreterTypes::Image) {
            std::vector<Color> pixels;
            for (int y = 0; y < p.height; ++y)
                for (int x = 0; x < p.width; ++x) pixels.push_back(Color(float(x), float(y), 0.25f, 1.0f));
            inputs.push_back(new PxMemoryImage(p.width, p.height, pixels, c.format));
        }
    }
    const PxRODResult rod{PxValidityInterval::getFull(),
                          GeRectangle<float>(0, float(c.width) * c.format.aspect(), 0, float(c.height))};
    const GeRectangle<int> rect = pixelRect(c);
    std::vector<Color> image(std::size_t(rect.width()) * std::size_t(rect.height()), Color(-1, -1, -1, -1));
    std::vector<std::pair<int, int>> tiles;
    const int tileHeight = 3;  // rows split across tiles too
    for (int ty = 0; ty * tileHeight < rect.height(); ++ty)
        for (int tx = 0; tx * tileWidth < rect.width(); ++tx) tiles.emplace_back(tx, ty);
    const auto work = [&](std::size_t first) {
        for (std::size_t i = first; i < tiles.size(); i += std::size_t(threads)) {
            PxImageContext context;
            context.tileWidth = tileWidth;
            context.tileHeight = tileHeight;
            context.tileX = tiles[i].first;
            context.tileY = tiles[i].second;
            context.scaleLevel = c.scaleLevel;
            context.time = c.time;
            PxImageResult result = interpreter.eval(runInfo, inputs, params, rod, c.format, context);
            const IxTile& tile = *result.getTile();
            const GeRectangle<int>& r = tile.getRect();
            for (int y = r.yMin; y < r.yMax; ++y)
                for (int x = r.xMin; x < r.xMax; ++x)
                    image[std::size_t(y - rect.yMin) * std::size_t(rect.width()) + std::size_t(x - rect.xMin)] =
                        tile.row(y)[x - r.xMin];
        }
    };
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
    return image;
}

bool near(const Color& a, const Color& b) {
    auto close = [](float p, float q) {
        return p == q || (std::isnan(p) && std::isnan(q)) || std::fabs(p - q) <= 1e-5f * std::max(1.0f, std::fabs(q));
    };
    return close(a.r, b.r) && close(a.g, b.g) && close(a.b, b.b) && close(a.a, b.a);
}

bool sameBits(const Color& a, const Color& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

std::string show(const Color& c) {
    std::ostringstream out;
    out << "(" << c.r << ", " << c.g << ", " << c.b << ", " << c.a << ")";
    return out.str();
}

std::string printOf(const RCShdPtr<PebRunInfo>& runInfo) {
    std::ostringstream out;
    try {
        static_cast<const KelRunInfo&>(*runInfo).function->print(out);
    } catch (const ExBase&) {
        return "throws";
    }
    std::string text;
    for (char ch : out.str())
        if (!std::isspace(static_cast<unsigned char>(ch))) text += ch;
        else if (!text.empty() && text.back() != ' ') text += ' ';
    return text;
}

void runCase(const Case& c) {
    SCOPED_TRACE(c.where);
    ASSERT_TRUE(c.malformed.empty()) << c.malformed;
    const KelInterpreter interpreter;
    Vector<PebParameterInfo> infos;
    for (const Parameter& p : c.parameters) infos.push_back(p.info);
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(infos);
    Vector<PebError> errors;
    const bool ok = interpreter.parse(c.script, runInfo, &errors);
    EXPECT_EQ(ok, c.result);
    EXPECT_EQ(errors.size(), c.errors.size());
    for (std::size_t i = 0; i < std::max(errors.size(), c.errors.size()); ++i) {
        const auto text = [](const Vector<PebError>& list, std::size_t at) {
            return at < list.size() ? std::to_string(list[at].getLine()) + " " + list[at].getMessage() : "none";
        };
        EXPECT_EQ(text(errors, i), text(c.errors, i)) << "error " << i;
    }
    if (!ok) {
        EXPECT_TRUE(c.pixels.empty() && c.printed.empty()) << "expectations of a script that doesn't compile";
        return;
    }
    for (const std::string& text : c.printed) EXPECT_NE(printOf(runInfo).find(text), std::string::npos) << printOf(runInfo);
    if (c.cancelAfter >= 0) {
        PxRequestMgr::getInstance().setCheckBudget(c.cancelAfter);
        EXPECT_THROW(render(interpreter, runInfo, c, c.width, 1), ExCancelled);
        PxRequestMgr::getInstance().setCheckBudget(-1);
        return;
    }
    if (c.pixels.empty() && !c.render) return;
    const int width = pixelRect(c).width(), height = pixelRect(c).height();
    std::vector<Color> first;
    for (int tileWidth : {1, 7, 64, width}) {
        SCOPED_TRACE("tile width " + std::to_string(tileWidth));
        const std::vector<Color> image = render(interpreter, runInfo, c, tileWidth, 1);
        if (first.empty()) first = image;
        const std::vector<Color> threaded = render(interpreter, runInfo, c, tileWidth, 3);
        for (std::size_t i = 0; i < image.size(); ++i) {
            ASSERT_TRUE(sameBits(image[i], first[i])) << "pixel " << i << " differs from tile width 1";
            ASSERT_TRUE(sameBits(threaded[i], image[i])) << "pixel " << i << " differs on 3 threads";
            ASSERT_FALSE(image[i] == Color(-1, -1, -1, -1)) << "pixel " << i << " not written";
        }
        int failures = 0;
        for (int y = 0; y < height && failures < 5; ++y)
            for (int x = 0; x < width && failures < 5; ++x)
                for (const PixelExpectation& e : c.pixels) {
                    const Color& got = image[std::size_t(y) * std::size_t(width) + std::size_t(x)];
                    if ((e.x < 0 || e.x == x) && (e.y < 0 || e.y == y) && !near(got, e.color)) {
                        ADD_FAILURE() << "pixel (" << x << ", " << y << "): " << show(got) << ", expected " << show(e.color);
                        ++failures;
                    }
                }
    }
}

// The guide's examples (docs/language.md): each ```kel block, its first line `// params: ...`.
std::vector<Case> guideExamples() {
    std::ifstream file(KEL_LANGUAGE_GUIDE);
    std::vector<Case> examples;
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (line != "```kel") continue;
        Case c;
        c.name = "example" + std::to_string(examples.size() + 1);
        c.where = std::string(KEL_LANGUAGE_GUIDE) + ":" + std::to_string(number + 1);
        while (std::getline(file, line) && (++number, line != "```")) c.script += line + "\n";
        c.render = true;
        std::istringstream words(c.script.substr(0, c.script.find('\n')));
        std::string word, output = "out";
        words >> word;
        if (word != "//" || !(words >> word) || word != "params:") c.malformed = "no // params: line";
        for (std::string option, value; words >> option >> value;) {
            const std::string name = value.substr(0, value.find('='));
            const bool given = value.find('=') != std::string::npos;
            const auto input = [&](PebInterpreterTypes::Type type) { return PebParameterInfo(name, type, false, false); };
            if (option == "-i") c.parameters.push_back({input(PebInterpreterTypes::Image), 0, 6, 4});
            else if (option == "-f") c.parameters.push_back({input(PebInterpreterTypes::Float), given ? std::stod(value.substr(name.size() + 1)) : 0});
            else if (option == "-c") c.parameters.push_back({input(PebInterpreterTypes::Color)});
            else if (option == "--out") output = value;
            else c.malformed = "unknown option " + option;
        }
        c.parameters.push_back({PebParameterInfo(output, PebInterpreterTypes::Color, true, true)});
        readExpectations(c, false);
        examples.push_back(c);
    }
    return examples;
}

std::vector<Case> allCases() {
    std::vector<Case> cases = goldenCases(), examples = guideExamples();
    cases.insert(cases.end(), examples.begin(), examples.end());
    return cases;
}

class KelGolden : public testing::TestWithParam<Case> {};
void PrintTo(const Case& c, std::ostream* out) { *out << c.where; }

}  // namespace

TEST_P(KelGolden, Case) { runCase(GetParam()); }

// Every built-in of the catalogue is called by a case or an example whose pixels are checked, so
// each one's result is shown, whatever the catalogue's size.
TEST(KelGoldenCoverage, EveryBuiltInIsCalledWithACheckedResult) {
    const std::vector<Case> cases = allCases();
    ASSERT_FALSE(KelFunctionTable::functions.empty());
    for (const auto& [name, factory] : KelFunctionTable::functions) {
        const std::regex call("(^|[^A-Za-z0-9_])" + name + "[ \\t]*\\(");
        const bool called = std::any_of(cases.begin(), cases.end(), [&](const Case& c) {
            std::string code;  // the script without its comments
            std::istringstream lines(c.script);
            for (std::string line; std::getline(lines, line);) code += line.substr(0, line.find("//")) + "\n";
            return !c.pixels.empty() && std::regex_search(code, call);
        });
        EXPECT_TRUE(called) << name << " is called by no case with checked pixels";
    }
}

INSTANTIATE_TEST_SUITE_P(Scripts, KelGolden, testing::ValuesIn(allCases()),
                         [](const testing::TestParamInfo<Case>& info) {
                             std::string name = info.param.name;
                             for (char& ch : name)
                                 if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                             return name;
                         });
