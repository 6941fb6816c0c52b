// Part 3.4: the built-in function catalogue: names, order, classes, factories and signatures.
// The expected table is transcribed from the spec here, independently of kelFunctionsCatalogue.cpp.
// The signature tests read the tables that FunctionCallNode::addOverloadParameter fills (Part 4.6),
// and `sample`'s row is FunctionSample::declare (kelFunctionsSample.cpp).
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "kelFunctionTestSupport.h"

using namespace Zt;
using namespace Zt::test;

namespace {

constexpr int F = KelValueTypes::Float;
constexpr int I = KelValueTypes::Image;
constexpr int C = KelValueTypes::Color;
constexpr int V = KelValueTypes::Void;

struct Overload {
    std::vector<int> types;
    std::vector<int> modes;
    int returns;
};

template <class X>
bool isClass(const KelCallPtr& node) {
    return dynamic_cast<FunctionNode<X>*>(node.get()) != nullptr;
}

struct Row {
    const char* name;
    bool (*hasClass)(const KelCallPtr&);
    std::vector<Overload> overloads;
};

// clang-format off
// Part 3.4's table, in the order of registration.
const std::vector<Row> kExpected = {
    {"sin",                 isClass<FunctionSin>,                 {{{F}, {0}, F}}},
    {"cos",                 isClass<FunctionCos>,                 {{{F}, {0}, F}}},
    {"tan",                 isClass<FunctionTan>,                 {{{F}, {0}, F}}},
    {"asin",                isClass<FunctionASin>,                {{{F}, {0}, F}}},
    {"acos",                isClass<FunctionACos>,                {{{F}, {0}, F}}},
    {"atan",                isClass<FunctionATan>,                {{{F}, {0}, F}}},
    {"atan2",               isClass<FunctionATan2>,               {{{F, F}, {0, 0}, F}}},
    {"sinh",                isClass<FunctionSinh>,                {{{F}, {0}, F}}},
    {"cosh",                isClass<FunctionCosh>,                {{{F}, {0}, F}}},
    {"tanh",                isClass<FunctionTanh>,                {{{F}, {0}, F}}},
    {"degrees",             isClass<FunctionDegrees>,             {{{F}, {0}, F}}},
    {"radians",             isClass<FunctionRadians>,             {{{F}, {0}, F}}},
    {"exp",                 isClass<FunctionExp>,                 {{{F}, {0}, F}}},
    {"log",                 isClass<FunctionLog>,                 {{{F}, {0}, F}}},
    {"log10",               isClass<FunctionLog10>,               {{{F}, {0}, F}}},
    {"pow",                 isClass<FunctionPow>,                 {{{F, F}, {0, 0}, F}}},
    {"pow10",               isClass<FunctionPow10>,               {{{F}, {0}, F}}},
    {"floor",               isClass<FunctionFloor>,               {{{F}, {0}, F}}},
    {"ceil",                isClass<FunctionCeil>,                {{{F}, {0}, F}}},
    {"round",               isClass<FunctionRound>,               {{{F}, {0}, F}}},
    {"mod",                 isClass<FunctionMod>,                 {{{F, F}, {0, 0}, F}}},
    {"min",                 isClass<FunctionMin>,                 {{{F, F}, {0, 0}, F}}},
    {"max",                 isClass<FunctionMax>,                 {{{F, F}, {0, 0}, F}}},
    {"hypot",               isClass<FunctionHypot>,               {{{F, F}, {0, 0}, F}}},
    {"rand",                isClass<FunctionRand>,                {{{}, {}, F}}},
    {"r",                   isClass<FunctionR>,                   {{{C}, {0}, F}}},
    {"g",                   isClass<FunctionG>,                   {{{C}, {0}, F}}},
    {"b",                   isClass<FunctionB>,                   {{{C}, {0}, F}}},
    {"a",                   isClass<FunctionA>,                   {{{C}, {0}, F}}},
    {"x",                   isClass<FunctionR>,                   {{{C}, {0}, F}}},
    {"y",                   isClass<FunctionG>,                   {{{C}, {0}, F}}},
    {"z",                   isClass<FunctionB>,                   {{{C}, {0}, F}}},
    {"w",                   isClass<FunctionA>,                   {{{C}, {0}, F}}},
    {"setR",                isClass<FunctionSetR>,                {{{C, F}, {1, 0}, V}}},
    {"setG",                isClass<FunctionSetG>,                {{{C, F}, {1, 0}, V}}},
    {"setB",                isClass<FunctionSetB>,                {{{C, F}, {1, 0}, V}}},
    {"setA",                isClass<FunctionSetA>,                {{{C, F}, {1, 0}, V}}},
    {"setX",                isClass<FunctionSetR>,                {{{C, F}, {1, 0}, V}}},
    {"setY",                isClass<FunctionSetG>,                {{{C, F}, {1, 0}, V}}},
    {"setZ",                isClass<FunctionSetB>,                {{{C, F}, {1, 0}, V}}},
    {"setW",                isClass<FunctionSetA>,                {{{C, F}, {1, 0}, V}}},
    {"color",               isClass<FunctionNewColor>,            {{{F, F, F, F}, {0, 0, 0, 0}, C}}},
    {"sample",              isClass<FunctionSample>,              {{{I, F, F}, {0, 0, 0}, C}, {{I}, {0}, C}}},
    {"width",               isClass<FunctionWidth>,               {{{I}, {0}, F}}},
    {"height",              isClass<FunctionHeight>,              {{{I}, {0}, F}}},
    {"abs",                 isClass<FunctionAbs>,                 {{{F}, {0}, F}}},
    {"sqrt",                isClass<FunctionSqrt>,                {{{F}, {0}, F}}},
    {"xmin",                isClass<FunctionXMin>,                {{{I}, {0}, F}}},
    {"xmax",                isClass<FunctionXMax>,                {{{I}, {0}, F}}},
    {"ymin",                isClass<FunctionYMin>,                {{{I}, {0}, F}}},
    {"ymax",                isClass<FunctionYMax>,                {{{I}, {0}, F}}},
    {"dot",                 isClass<FunctionDot>,                 {{{C, C}, {0, 0}, F}}},
    {"getOutputImage",      isClass<FunctionGetOutputImage>,      {{{}, {}, I}}},
    {"getPixelAspectRatio", isClass<FunctionGetPixelAspectRatio>, {{{I}, {0}, F}}},
    {"isSame",              isClass<FunctionIsSame>,              {{{I, I}, {0, 0}, F}}},
    {"noise3D",             isClass<FunctionNoise3D>,             {{{F, F, F}, {0, 0, 0}, F}}},
};
// clang-format on

KelCallPtr make(const std::string& name, int line = 7) {
    KelFunctionTable::Factory factory = KelFunctionTable::lookup(name);
    if (!factory) return nullptr;
    return factory(line);
}

}  // namespace

// The first names of the catalogue, in its order; later built-ins follow them.
TEST(KelFunctionsCatalogue, FiftySixNamesInTheCatalogueOrder) {
    ASSERT_EQ(kExpected.size(), 56u);
    EXPECT_EQ(KelFunctionTable::functions.size(), KelFunctionTable::namesInOrder().size());
    std::vector<std::string> names;
    for (const Row& row : kExpected) names.emplace_back(row.name);
    const std::vector<std::string>& all = KelFunctionTable::namesInOrder();
    ASSERT_GE(all.size(), names.size());
    EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + std::ptrdiff_t(names.size())), names);
}

TEST(KelFunctionsCatalogue, EveryNameFindsAFactory) {
    for (const Row& row : kExpected) EXPECT_NE(KelFunctionTable::lookup(row.name), nullptr) << row.name;
}

// Exact and case-sensitive; `vec4` is the scanner's other spelling of `color`, not a table name.
TEST(KelFunctionsCatalogue, LookupIsExactAndCaseSensitive) {
    for (const char* name : {"Sin", "SIN", "sin ", " sin", "si", "sinx", "Color", "vec4", "noise3d", "setr", "", "main"})
        EXPECT_EQ(KelFunctionTable::lookup(name), nullptr) << "'" << name << "'";
    EXPECT_NE(KelFunctionTable::lookup("sin"), nullptr);
}

// Each factory makes a new node of its class, under the script's name, at the given line, with no
// arguments and no overload chosen yet.
TEST(KelFunctionsCatalogue, FactoriesMakeFreshNodesOfTheirClassUnderTheirName) {
    for (const Row& row : kExpected) {
        KelCallPtr node = make(row.name, 42);
        ASSERT_FALSE(node.isNull()) << row.name;
        EXPECT_TRUE(row.hasClass(node)) << row.name;
        EXPECT_EQ(node->getName(), row.name);
        EXPECT_EQ(node->line(), 42);
        EXPECT_EQ(node->argumentCount(), 0u);
        EXPECT_EQ(node->overload(), -1);
        EXPECT_NE(make(row.name).get(), node.get());
    }
}

// Two names that share a class have two factories: `x` prints as `x`, `r` as `r`.
TEST(KelFunctionsCatalogue, SecondNamesHaveFactoriesOfTheirOwn) {
    std::set<KelFunctionTable::Factory> factories;
    for (const Row& row : kExpected) factories.insert(KelFunctionTable::lookup(row.name));
    EXPECT_EQ(factories.size(), 56u);
    KelCallPtr x = make("x"), r = make("r");
    EXPECT_TRUE(isClass<FunctionR>(x));
    EXPECT_EQ(x->getName(), "x");
    EXPECT_EQ(r->getName(), "r");
    EXPECT_EQ(make("setW")->getName(), "setW");
    EXPECT_TRUE(isClass<FunctionSetA>(make("setW")));
}

// The signatures of Part 3.4: overload count, parameter types and modes, return types. Only
// `sample` has two overloads; the setters' first parameter is written (mode 1) and they return 5.
TEST(KelFunctionsCatalogue, SignaturesAreThoseOfTheTable) {
    for (const Row& row : kExpected) {
        KelCallPtr node = make(row.name);
        ASSERT_EQ(node->returnTypes().size(), row.overloads.size()) << row.name;
        for (std::size_t k = 0; k < row.overloads.size(); ++k) {
            const Overload& o = row.overloads[k];
            EXPECT_EQ(node->returnTypes()[k], o.returns) << row.name << " overload " << k;
            // An overload without parameters may have no row in the parameter tables.
            std::vector<int> types = k < node->parameterTypes().size() ? node->parameterTypes()[k] : std::vector<int>{};
            std::vector<int> modes = k < node->parameterModes().size() ? node->parameterModes()[k] : std::vector<int>{};
            EXPECT_EQ(types, o.types) << row.name << " overload " << k;
            EXPECT_EQ(modes, o.modes) << row.name << " overload " << k;
        }
    }
}

// Each new node carries its own copy of the signature.
TEST(KelFunctionsCatalogue, EachNodeHasItsOwnSignatureCopy) {
    KelCallPtr first = make("atan2");
    KelCallPtr second = make("atan2");
    first->addOverloadParameter(C, 0, 0);
    EXPECT_EQ(second->parameterTypes().at(0), (std::vector<int>{F, F}));
}

// ---- Resolution through FunctionCallNode::check (Part 4.6) of the catalogue's signatures ---------

namespace {

// Checks a call made by the catalogue's factory over prototypes held in `h`, at line 1.
KelValuePtr checkCall(CallHarness& h, const std::string& name, const std::vector<KelNodePtr>& arguments) {
    KelCallPtr node = make(name, 1);
    for (const KelNodePtr& a : arguments) node->addArgument(a);
    return node->check(h.context);
}

std::string checkMessage(CallHarness& h, const std::string& name, const std::vector<KelNodePtr>& arguments) {
    try {
        checkCall(h, name, arguments);
    } catch (const KelParseEx& e) {
        return e.what();
    }
    return "(no error)";
}

std::string noOverload(const std::string& name) {
    return "No overloaded function for '" + name + "' match the argument list at line 1";
}

}  // namespace

TEST(KelFunctionsCatalogueCheck, SampleResolvesWithOneOrThreeArgumentsOnly) {
    CallHarness h(0, 1);
    auto image = h.image(2.0f);
    auto f = h.constant(1.0f);
    KelCallPtr one = make("sample", 1), three = make("sample", 1);
    one->addArgument(image);
    for (const KelNodePtr& a : {image, f, f}) three->addArgument(a);
    EXPECT_EQ(one->check(h.context)->getType(), C);
    EXPECT_EQ(one->overload(), 1);
    EXPECT_EQ(three->check(h.context)->getType(), C);
    EXPECT_EQ(three->overload(), 0);
    EXPECT_EQ(checkMessage(h, "sample", {image, f}), noOverload("sample"));
}

// setR's first parameter is written: a const colour is refused; a writable one gives no value.
TEST(KelFunctionsCatalogueCheck, SettersRefuseConstColoursAndHaveNoValue) {
    CallHarness h(0, 1);
    auto constant = h.colors({Color(1, 1, 1, 1)}, 0);
    auto variable = h.colors({Color(1, 1, 1, 1)}, 1);
    auto one = h.constant(1.0f);
    EXPECT_EQ(checkMessage(h, "setR", {constant, one}),
              "The parameter #1 cannot be used in the function setR because it is const. at line 1");
    EXPECT_EQ(checkMessage(h, "setW", {constant, one}),
              "The parameter #1 cannot be used in the function setW because it is const. at line 1");
    EXPECT_TRUE(checkCall(h, "setR", {variable, one}).isNull());
}

TEST(KelFunctionsCatalogueCheck, ArgumentCountsAndTypesAreExact) {
    CallHarness h(0, 1);
    auto f = h.constant(1.0f);
    auto c = h.colors({Color(1, 0, 0, 1)});
    for (const char* name : {"min", "max", "mod", "pow", "hypot", "atan2"}) {
        EXPECT_EQ(checkCall(h, name, {f, f})->getType(), F) << name;
        EXPECT_EQ(checkMessage(h, name, {f}), noOverload(name));
        EXPECT_EQ(checkMessage(h, name, {f, f, f}), noOverload(name));
    }
    EXPECT_EQ(checkCall(h, "noise3D", {f, f, f})->getType(), F);
    EXPECT_EQ(checkMessage(h, "noise3D", {f, f}), noOverload("noise3D"));
    EXPECT_EQ(checkCall(h, "color", {f, f, f, f})->getType(), C);
    EXPECT_EQ(checkMessage(h, "color", {f, f, f}), noOverload("color"));
    // dot takes two colours; there is no dot of floats. abs takes a float only.
    EXPECT_EQ(checkCall(h, "dot", {c, c})->getType(), F);
    EXPECT_EQ(checkMessage(h, "dot", {f, f}), noOverload("dot"));
    EXPECT_EQ(checkMessage(h, "abs", {c}), noOverload("abs"));
    EXPECT_EQ(checkMessage(h, "r", {f}), noOverload("r"));
}

// Part 3.4: neither has a parameter, so neither has an overload (one addOverloadParameter call
// per parameter); Part 4.6 step 4 then takes overload 0 whatever the arguments, which are
// checked but held against no signature.
TEST(KelFunctionsCatalogueCheck, RandAndGetOutputImageTakeNoArgument) {
    CallHarness h(0, 1);
    auto f = h.constant(1.0f);
    EXPECT_EQ(checkCall(h, "rand", {})->getType(), F);
    EXPECT_EQ(checkCall(h, "getOutputImage", {})->getType(), I);
    EXPECT_EQ(checkCall(h, "rand", {f})->getType(), F);
    EXPECT_EQ(checkCall(h, "getOutputImage", {f})->getType(), I);
}

// An image where a colour is wanted is sampled: r(img) becomes r(sample(img)).
TEST(KelFunctionsCatalogueCheck, ImageForAColourParameterIsSampled) {
    CallHarness h(0, 1);
    KelCallPtr node = make("x", 1);
    node->addArgument(h.image(2.0f));
    EXPECT_EQ(node->check(h.context)->getType(), F);
    auto* wrapped = dynamic_cast<FunctionNode<FunctionSample>*>(node->argument(0).get());
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->getName(), "sample");
    EXPECT_EQ(h.context.usedNames().count("x0"), 1u);
    EXPECT_EQ(h.context.usedNames().count("sample1"), 1u);
}

// A call prints under the script's name: `x(c)` as x, `r(c)` as r (Part 4.1's print table).
TEST(KelFunctionsCatalogueCheck, NodesPrintUnderTheScriptsName) {
    CallHarness h(0, 1);
    auto c = h.colors({Color(1, 0, 0, 1)});
    for (const char* name : {"x", "r", "setW", "rand"}) {
        KelCallPtr node = make(name, 1);
        std::ostringstream out;
        node->print(out);
        EXPECT_EQ(out.str(), std::string(name) + "(  )");
    }
    KelCallPtr x = make("x", 1);
    x->addArgument(c);
    std::ostringstream out;
    x->print(out);
    EXPECT_EQ(out.str().substr(0, 3), "x( ");
}
