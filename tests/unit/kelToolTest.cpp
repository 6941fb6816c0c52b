// Parts 6.1 and 6.2 edge cases: the package record, the build record, the tool "KEL" and its
// description object, KelTool's factory, and KelController through the host's PebController.
#include <gtest/gtest.h>

#include "InBuildInfo.h"
#include "InPackage.h"
#include "PebController.h"
#include "PiImageModifierInfo.h"
#include "PxMemoryImage.h"
#include "PxTileRenderer.h"
#include "kelFunctions.h"
#include "kelGraph.h"
#include "kelTool.h"
#include "kelZttoolInit.h"

namespace Zt {
namespace {

InPackageInit& package() {
    InPackageInit* p = InPackageManager::getInstance().find("kelZttool");
    if (!p) throw std::runtime_error("kelZttool is not registered");
    return *p;
}

// Initialises the packages as a host does, from tables emptied first, so that what the tests
// see is what initialize built.
void initializeFromScratch() {
    InPackageManager::getInstance().shutdownAll();
    KelFunctionTable::functions.clear();
    std::fill(std::begin(KelNoise::permutation), std::end(KelNoise::permutation), 0);
    InPackageManager::getInstance().initializeAll();
}

PiToolProtocol& kelTool() {
    PiToolProtocol* tool = PiToolRegistry::getInstance().find("KEL");
    if (!tool) throw std::runtime_error("KEL is not registered");
    return *tool;
}

std::unique_ptr<PebController> newController() {
    OPtrRet<PiNodeController> node = kelTool().createController();
    auto* controller = dynamic_cast<PebController*>(node.get());
    if (!controller) throw std::runtime_error("not a PebController");
    node.release();
    return std::unique_ptr<PebController>(controller);
}

TEST(KelPackage, RecordAnnouncesTheNameAndTheSixHostDependencies) {
    InPackageInit& p = package();
    EXPECT_EQ(p.getName(), "kelZttool");
    ASSERT_EQ(p.getDependencies().size(), 6u);
    const char* names[] = {"ZtPeb", "ZtIi", "ZtPr", "ZtRm", "ZtPi", "ZtBase"};
    for (int i = 0; i < 6; ++i) {
        InPackageInit* dependency = InPackageManager::getInstance().find(*p.getDependencies()[std::size_t(i)]);
        ASSERT_NE(dependency, nullptr);
        EXPECT_EQ(dependency->getName(), names[i]);
    }
}

TEST(KelPackage, ToolKnownAndTablesCompleteBeforeTheFirstCompile) {
    initializeFromScratch();
    EXPECT_TRUE(kelZttoolIsInitialized());
    PiToolProtocol& tool = kelTool();
    EXPECT_EQ(tool.getDisplayName(), "Kel Expressions");
    EXPECT_EQ(tool.getDescription(), "KEL language scripting tool for creating effects.");
    auto& imp = dynamic_cast<PiToolProtocolImp&>(tool);
    EXPECT_EQ(imp.getSchema(), 9);
    EXPECT_EQ(imp.getVisibility(), 1);
    EXPECT_EQ(imp.getStructure(), 0);
    for (const std::string& name : KelFunctionTable::namesInOrder()) EXPECT_NE(KelFunctionTable::lookup(name), nullptr) << name;
    std::vector<int> seen(KelNoise::permutation, KelNoise::permutation + 256);
    std::sort(seen.begin(), seen.end());
    for (int i = 0; i < 256; ++i) EXPECT_EQ(seen[std::size_t(i)], i);

    auto controller = newController();
    controller->setScript("out = color(x, y, 0, 1);");
    EXPECT_TRUE(controller->isCompiled());
}

TEST(KelPackage, BuildRecordConstantsAndEmptyStatus) {
    InPackageManager::getInstance().initializeAll();
    const InBuildInfo* info = InBuildInfoUtil::find("libZtkelZttool");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->getVendor(), "Varnic Sorell Library");
    EXPECT_EQ(info->getCopyrightYear(), "2013");
    EXPECT_EQ(info->getVersion(), "8.0");
    EXPECT_EQ(info->getStatus(), "");
    EXPECT_EQ(info->getMajorVersion(), 8);
    EXPECT_EQ(info->getMinorVersion(), 0);
    EXPECT_EQ(info->getReleaseNumber(), 42);
    EXPECT_EQ(info->getBuildNumber(), "2600");
    EXPECT_EQ(info->getBuildDate(), "Jun 12 2012");
    EXPECT_EQ(info->getBuildPlatform(), "opt.x86_64.intel");
}

RCShdPtr<RCBase<LkCounter<int>>> fakeFactory(const RCShdPtr<PiWidget>&, const RCShdPtr<PiNode>&,
                                             const RCShdPtr<const PiTimePath>&) {
    return RCShdPtr<RCBase<LkCounter<int>>>(new PiNode);
}

TEST(KelPackage, UiFactoryStoredThenNullAfterShutdown) {
    InPackageManager::getInstance().initializeAll();
    auto controller = newController();
    EXPECT_EQ(controller->getUiFactory(), nullptr);
    EXPECT_FALSE(controller->createInstanceData(nullptr, nullptr, nullptr));  // works without a UI
    KelTool::setUiFactory(fakeFactory);
    EXPECT_EQ(controller->getUiFactory(), &fakeFactory);
    EXPECT_TRUE(controller->createInstanceData(nullptr, nullptr, nullptr));
    InPackageManager::getInstance().shutdownAll();
    EXPECT_EQ(KelTool::uiFactory, nullptr);
    EXPECT_FALSE(kelZttoolIsInitialized());
    InPackageManager::getInstance().initializeAll();
}

TEST(KelTool, DescriptionFetchedOnceHoweverManyControllers) {
    initializeFromScratch();  // a fresh description object
    PiToolProtocol& tool = kelTool();
    EXPECT_EQ(kelDescriptionFetches(), 0);
    auto* modifier = dynamic_cast<PiImageModifierProtocol*>(&tool);
    ASSERT_NE(modifier, nullptr);
    std::vector<std::unique_ptr<PebController>> controllers;
    for (int i = 0; i < 5; ++i) controllers.push_back(newController());
    EXPECT_TRUE(modifier->canMute());
    EXPECT_TRUE(modifier->canAffectColor());
    EXPECT_FALSE(modifier->canBeDisplayModifier());
    EXPECT_EQ(modifier->getMaskingMode(), PiImageModifierTypes::NoMasking);
    EXPECT_EQ(tool.getPrimaryInput(), "");
    PiToolDescriptor descriptor;
    tool.describe(descriptor);
    EXPECT_EQ(descriptor.values, (std::vector<std::string>{"mute", "affect", "script"}));
    EXPECT_EQ(descriptor.outputs, (std::vector<std::string>{"output"}));
    EXPECT_EQ(kelDescriptionFetches(), 1);
}

// A 4 x 3 plate whose pixel (x, y) is (x, y, 0, 1).
PxNodePtr<const PxImageProtocol> plate() {
    std::vector<Color> pixels;
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) pixels.emplace_back(float(x), float(y), 0.0f, 1.0f);
    return PxNodePtr<const PxImageProtocol>(new PxMemoryImage(4, 3, pixels));
}

PxRenderedImage renderWith(PebController& controller, const Vector<double>& values) {
    const auto input = plate();
    const auto node = controller.createModifierProcNode({input}, values, input->getROD({}), IxPixelFormat{});
    PxImageContext context;
    context.tileWidth = 3;
    context.tileHeight = 2;
    return PxTileRenderer(2).render(*node, GeRectangle<int>(0, 4, 0, 3), context);
}

TEST(KelController, TwoControllersShareOnlyTheStaticTables) {
    InPackageManager::getInstance().initializeAll();
    auto first = newController();
    auto second = newController();
    const auto i1 = first->createInterpreter();
    const auto i2 = second->createInterpreter();
    EXPECT_NE(i1.get(), i2.get());
    for (auto* c : {first.get(), second.get()}) {
        ASSERT_TRUE(c->addDynamicInput("src", PebInterpreterTypes::Image));
        ASSERT_TRUE(c->addDynamicInput("k", PebInterpreterTypes::Float));
    }
    first->setScript("out = src * k;");
    second->setScript("out = src + k;");
    ASSERT_TRUE(first->isCompiled());
    ASSERT_TRUE(second->isCompiled());
    EXPECT_NE(first->getRunInfo().get(), second->getRunInfo().get());
    const PxRenderedImage a = renderWith(*first, {2.0});
    const PxRenderedImage b = renderWith(*second, {2.0});
    EXPECT_EQ(a.at(3, 2), Color(6, 4, 0, 2));
    EXPECT_EQ(b.at(3, 2), Color(5, 4, 2, 3));
}

TEST(KelController, FailedParseIsNeverEvaluated) {
    InPackageManager::getInstance().initializeAll();
    auto controller = newController();
    controller->setScript("out = ;");
    EXPECT_FALSE(controller->isCompiled());
    ASSERT_FALSE(controller->getErrors().empty());
    EXPECT_EQ(controller->getErrors()[0].getLine(), 1);
    EXPECT_THROW(controller->createModifierProcNode({}, {}, PxRODResult{}, IxPixelFormat{}), ExBase);
}

TEST(KelController, ParameterListInOrderWithTheOutputLast) {
    InPackageManager::getInstance().initializeAll();
    auto controller = newController();
    EXPECT_TRUE(controller->addDynamicInput("a1", PebInterpreterTypes::Float));
    EXPECT_TRUE(controller->addDynamicInput("img", PebInterpreterTypes::Image));
    EXPECT_FALSE(controller->addDynamicInput("img", PebInterpreterTypes::Float));
    EXPECT_FALSE(controller->addDynamicInput("out", PebInterpreterTypes::Float));
    EXPECT_FALSE(controller->addDynamicInput("2x", PebInterpreterTypes::Float));
    EXPECT_FALSE(controller->canAddDynamicInput("ok", 5, 1));
    EXPECT_TRUE(controller->setOutputName("result"));
    const Vector<PebParameterInfo> params = controller->getParameters();
    ASSERT_EQ(params.size(), 3u);
    EXPECT_EQ(params[0].getName(), "a1");
    EXPECT_EQ(params[1].getType(), PebInterpreterTypes::Image);
    EXPECT_EQ(params[2].getName(), "result");
    EXPECT_TRUE(params[2].isOutput());
    EXPECT_TRUE(params[2].isVarying());
    EXPECT_TRUE(controller->removeDynamicInput("a1"));
    EXPECT_EQ(controller->getParameters().size(), 2u);
}

}  // namespace
}  // namespace Zt
