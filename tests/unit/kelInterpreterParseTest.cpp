// Part 1.1: KelInterpreter::parse, its 13 steps and the order of its failures, through the real
// front end and the real check.
#include <gtest/gtest.h>

#include <sstream>

#include "kelInterpreter.h"

using namespace Zt;

namespace {

using Type = PebInterpreterTypes::Type;

// The node of the examples: an input image `src`, a float `gain`, the colour output `out`.
Vector<PebParameterInfo> nodeParameters() {
    return {{"src", PebInterpreterTypes::Image, false, false},
            {"gain", PebInterpreterTypes::Float, false, false},
            {"out", PebInterpreterTypes::Color, true, true}};
}

struct Compiled {
    bool ok;
    Vector<PebError> errors;
    RCShdPtr<PebRunInfo> runInfo;
    KelRunInfo& info() const { return static_cast<KelRunInfo&>(*runInfo); }
};

Compiled compile(const std::string& script, const Vector<PebParameterInfo>& params = nodeParameters()) {
    KelInterpreter interpreter;
    Compiled result{false, {}, interpreter.createRunInfo(params)};
    result.ok = interpreter.parse(script, result.runInfo, &result.errors);
    return result;
}

std::string printed(const RCShdPtr<FunctionDeclarationNode>& function) {
    std::ostringstream out;
    function->print(out);
    return out.str();
}

void expectOnlyError(const Compiled& compiled, const std::string& message, int line) {
    ASSERT_EQ(compiled.errors.size(), 1u) << message;
    EXPECT_EQ(compiled.errors[0].getMessage(), message);
    EXPECT_EQ(compiled.errors[0].getLine(), line);
}

class OtherRunInfo : public PebRunInfo {
public:
    OtherRunInfo() : PebRunInfo({}) {}
};

}  // namespace

TEST(KelInterpreterParse, EmptyScriptIsRefusedBeforeTheParser) {
    Compiled compiled = compile("");
    EXPECT_FALSE(compiled.ok);
    expectOnlyError(compiled, "Error: The script is empty", 0);
    EXPECT_TRUE(compiled.info().function.isNull());
}

TEST(KelInterpreterParse, BlankScriptIsASyntaxError) {
    Compiled compiled = compile(" ");
    EXPECT_FALSE(compiled.ok);
    expectOnlyError(compiled, "Syntax Error: Invalid statement block at line 1", 1);
    compiled = compile("// nothing\n/* at all */\n");
    EXPECT_FALSE(compiled.ok);
    expectOnlyError(compiled, "Syntax Error: Invalid statement block at line 3", 3);
}

TEST(KelInterpreterParse, SemicolonGivesMainWithEveryNodeParameter) {
    Compiled compiled = compile(";");
    EXPECT_TRUE(compiled.ok);
    EXPECT_TRUE(compiled.errors.empty());
    ASSERT_FALSE(compiled.info().function.isNull());
    EXPECT_EQ(printed(compiled.info().function), "main( \n\tIN image src\n\tIN float gain\n\tOUT color out\n ) \n{\n}");
    // x, y, t and the three parameters.
    EXPECT_EQ(compiled.info().variableCount, 6);
}

TEST(KelInterpreterParse, BareStatementsSeeTheNodeParameters) {
    Compiled compiled = compile("out = src * gain;");
    EXPECT_TRUE(compiled.ok) << (compiled.errors.empty() ? "" : compiled.errors[0].getMessage());
    EXPECT_TRUE(compiled.errors.empty());
    EXPECT_EQ(compiled.info().usedNames.count("sample1"), 1u);
    EXPECT_EQ(compiled.info().usedNames.count("x"), 0u);
}

TEST(KelInterpreterParse, UsedNamesHoldXOnlyWhenRead) {
    Compiled compiled = compile("out = color(x, 0, 0, 1);");
    ASSERT_TRUE(compiled.ok);
    EXPECT_EQ(compiled.info().usedNames.count("x"), 1u);
    EXPECT_EQ(compiled.info().usedNames.count("y"), 0u);
}

TEST(KelInterpreterParse, FunctionNotNamedMainIsReportedButCompiles) {
    Compiled compiled = compile("void effect(output color out) { out = color(1, 0, 0, 1); }");
    EXPECT_TRUE(compiled.ok);
    expectOnlyError(compiled, "Function main is not found", 0);
    EXPECT_EQ(compiled.info().function->getName(), "effect");
}

TEST(KelInterpreterParse, NodeParametersAreAppendedBehindTheDeclaredOnes) {
    Compiled compiled = compile("void main(output color out) { out = src * gain; }");
    EXPECT_TRUE(compiled.ok);
    EXPECT_TRUE(compiled.errors.empty());
    EXPECT_EQ(printed(compiled.info().function),
              "main( \n\tOUT color out\n\tIN image src\n\tIN float gain\n ) \n{\nout = ( sample( src, ) * gain )}");
}

TEST(KelInterpreterParse, UnknownScriptParameter) {
    Compiled compiled = compile("void main(input image src, input float gain, output color out, input float extra) { }");
    EXPECT_FALSE(compiled.ok);
    expectOnlyError(compiled, "Parameter extra is not a valid parameter", 0);
    // The function is replaced all the same (steps 6 and 10).
    EXPECT_FALSE(compiled.info().function.isNull());
}

TEST(KelInterpreterParse, DuplicateParameterIsLeftForTheCheck) {
    // Step 9 binds the first `gain`; step 10 passes the second, whose name is bound; the check
    // then refuses the duplicate with its own words and line.
    Compiled compiled = compile("void main(input float gain,\n input float gain) { }");
    EXPECT_FALSE(compiled.ok);
    ASSERT_EQ(compiled.errors.size(), 1u);
    const std::string& message = compiled.errors[0].getMessage();
    EXPECT_EQ(message.find("Parameter "), std::string::npos) << message;
    EXPECT_NE(message.find(" at line "), std::string::npos) << message;
    EXPECT_NE(compiled.errors[0].getLine(), 0) << message;
}

TEST(KelInterpreterParse, TypeMismatches) {
    expectOnlyError(compile("void main(input color gain) { }"), "Parameter gain is not of type float", 0);
    expectOnlyError(compile("void main(output float out) { }"), "Parameter out is not of type color", 0);
    expectOnlyError(compile("void main(input float src) { }"), "Parameter src is not of type image", 0);
}

TEST(KelInterpreterParse, DirectionMismatches) {
    expectOnlyError(compile("void main(input color out) { }"), "Parameter out is not an output", 0);
    expectOnlyError(compile("void main(output float gain) { }"), "Parameter gain is not an input", 0);
}

TEST(KelInterpreterParse, TypeComesBeforeDirection) {
    expectOnlyError(compile("void main(output image gain) { }"), "Parameter gain is not of type float", 0);
}

TEST(KelInterpreterParse, OnlyTheFirstFailedParameterIsReported) {
    // Node order decides: `gain` (second node parameter) before `out` (third).
    Compiled compiled = compile("void main(input color out, input color gain) { }");
    EXPECT_FALSE(compiled.ok);
    expectOnlyError(compiled, "Parameter gain is not of type float", 0);
}

TEST(KelInterpreterParse, NodeParameterOfAnotherTypeIsNotCompared) {
    Vector<PebParameterInfo> params{{"odd", static_cast<Type>(2), false, false},
                                    {"out", PebInterpreterTypes::Color, true, true}};
    Compiled compiled = compile("void main(input float odd, output color out) { }", params);
    EXPECT_TRUE(compiled.ok);
    EXPECT_TRUE(compiled.errors.empty());
    // Appended with an empty type name when the script doesn't name it.
    compiled = compile(";", params);
    EXPECT_EQ(printed(compiled.info().function), "main( \n\tIN  odd\n\tOUT color out\n ) \n{\n}");
}

TEST(KelInterpreterParse, CheckFailureKeepsItsLine) {
    Compiled compiled = compile("out = color(1, 0, 0, 1);\n\nout = nothing;");
    EXPECT_FALSE(compiled.ok);
    ASSERT_EQ(compiled.errors.size(), 1u);
    EXPECT_EQ(compiled.errors[0].getLine(), 3);
    const std::string& message = compiled.errors[0].getMessage();
    ASSERT_GE(message.size(), 10u);
    EXPECT_EQ(message.substr(message.size() - 10), " at line 3") << message;
}

TEST(KelInterpreterParse, SyntaxErrorLeavesThePreviousCompilation) {
    KelInterpreter interpreter;
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(nodeParameters());
    Vector<PebError> errors;
    ASSERT_TRUE(interpreter.parse("float a = x; out = color(a, y, 0, 1);", runInfo, &errors));
    KelRunInfo& info = static_cast<KelRunInfo&>(*runInfo);
    FunctionDeclarationNode* before = info.function.get();
    const int count = info.variableCount;
    const auto names = info.usedNames;
    EXPECT_FALSE(interpreter.parse("out = ;", runInfo, &errors));
    EXPECT_FALSE(interpreter.parse("", runInfo, &errors));
    EXPECT_EQ(info.function.get(), before);
    EXPECT_EQ(info.variableCount, count);
    EXPECT_EQ(info.usedNames, names);
    // The list is appended to, never cleared.
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].getMessage(), "Syntax Error: Expected value after assign at line 1");
    EXPECT_EQ(errors[1].getMessage(), "Error: The script is empty");
}

TEST(KelInterpreterParse, BindingFailureReplacesOnlyTheFunction) {
    KelInterpreter interpreter;
    RCShdPtr<PebRunInfo> runInfo = interpreter.createRunInfo(nodeParameters());
    Vector<PebError> errors;
    ASSERT_TRUE(interpreter.parse("float a = x; out = color(a, 0, 0, 1);", runInfo, &errors));
    KelRunInfo& info = static_cast<KelRunInfo&>(*runInfo);
    FunctionDeclarationNode* before = info.function.get();
    const int count = info.variableCount;
    const auto names = info.usedNames;
    EXPECT_FALSE(interpreter.parse("void main(input color gain) { }", runInfo, &errors));
    EXPECT_NE(info.function.get(), before);
    EXPECT_EQ(info.variableCount, count);
    EXPECT_EQ(info.usedNames, names);
    // A later parse recompiles all.
    EXPECT_TRUE(interpreter.parse(";", runInfo, &errors));
    EXPECT_EQ(info.variableCount, 6);
    EXPECT_TRUE(info.usedNames.empty());
}

TEST(KelInterpreterParse, RunInfoOfAnotherClassIsAFrameworkFailure) {
    KelInterpreter interpreter;
    Vector<PebError> errors;
    RCShdPtr<PebRunInfo> other(new OtherRunInfo());
    EXPECT_THROW(interpreter.parse("x;", other, &errors), ExCastFailed);
    EXPECT_TRUE(errors.empty());
    // A null run info passes step 1, and fails at its first use.
    EXPECT_FALSE(interpreter.parse("", RCShdPtr<PebRunInfo>(), &errors));
    EXPECT_THROW(interpreter.parse("x;", RCShdPtr<PebRunInfo>(), &errors), ExNullPtr);
}

TEST(KelInterpreterParse, UnknownFunctionAndTooLongScripts) {
    expectOnlyError(compile("out = src;\nout = Sin(1);"), "Function undefined : Sin at line 2", 2);
    std::string longScript;
    for (int i = 0; i < 1000; ++i) longScript += "gain;\n";
    expectOnlyError(compile(longScript), "Error: Script too long", 0);
}
