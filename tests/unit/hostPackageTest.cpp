// The host's package framework, plug-in loader and tile renderer: dependency order, missing
// dependencies and cycles, reverse shut-down, the plug-in directory list, dlopen of the build's
// plug-ins directory, and tiles rendered concurrently giving the pixels of one thread.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "InBuildInfo.h"
#include "InPackage.h"
#include "PiPluginLoader.h"
#include "PiTool.h"
#include "PxTileRenderer.h"
#include "kelZttoolInit.h"

namespace Zt {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> gLog;

template <class Tag>
struct LoggedPackage : InInit<Tag> {
    explicit LoggedPackage(const char* name) : InInit<Tag>(name) {}
    void initialize() override { gLog.push_back("init " + this->getName()); }
    void shutdown() override { gLog.push_back("shutdown " + this->getName()); }
    void depend(const std::type_info& type) { InPackageInit::addDependency(type); }
};
struct TagA {};
struct TagB {};
struct TagC {};
struct TagMissing {};

TEST(HostPackages, InitialisedAfterDependenciesAndShutDownInReverse) {
    gLog.clear();
    {
        // Registered in the wrong order on purpose: C needs B, B needs A.
        LoggedPackage<TagC> c("C");
        LoggedPackage<TagB> b("B");
        LoggedPackage<TagA> a("A");
        c.depend(typeid(TagB));
        b.depend(typeid(TagA));
        InPackageManager::getInstance().initializeAll();
        EXPECT_TRUE(c.isInitialized());
        InPackageManager::getInstance().shutdownAll();
        EXPECT_FALSE(a.isInitialized());
    }
    EXPECT_EQ(gLog, (std::vector<std::string>{"init A", "init B", "init C", "shutdown C", "shutdown B", "shutdown A"}));
    EXPECT_EQ(InPackageManager::getInstance().find("C"), nullptr);  // unregistered when destroyed
    InPackageManager::getInstance().initializeAll();                 // leave the others initialised
}

TEST(HostPackages, MissingDependencyAndCycleAreReportedBeforeAnyInitialisation) {
    gLog.clear();
    {
        LoggedPackage<TagA> a("A");
        a.depend(typeid(TagMissing));
        InPackageManager::getInstance().shutdownAll();
        EXPECT_THROW(InPackageManager::getInstance().initializeAll(), ExBase);
    }
    {
        LoggedPackage<TagA> a("A");
        LoggedPackage<TagB> b("B");
        a.depend(typeid(TagB));
        b.depend(typeid(TagA));
        EXPECT_THROW(InPackageManager::getInstance().initializeAll(), ExBase);
    }
    EXPECT_TRUE(gLog.empty());
    InPackageManager::getInstance().initializeAll();
}

TEST(HostPluginLoader, DirectoriesFromTheEnvironmentOrTheDefault) {
    EXPECT_EQ(PiPluginLoader::directories(nullptr, "/d"), (std::vector<std::string>{"/d"}));
    EXPECT_EQ(PiPluginLoader::directories("", "/d"), (std::vector<std::string>{"/d"}));
    EXPECT_EQ(PiPluginLoader::directories("/a::/b", "/d"), (std::vector<std::string>{"/a", "/b"}));
}

// The build's plugins directory: where the linked libZtkelZttool lives.
std::string pluginDirectory() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(&kelBuildStaticTables), &info) || !info.dli_fname) return "";
    return fs::path(info.dli_fname).parent_path().string();
}

TEST(HostPluginLoader, LoadsThePackageFromThePluginsDirectoryAndRegistersTheTool) {
    const std::string directory = pluginDirectory();
    ASSERT_FALSE(directory.empty());
    PiPluginLoader loader;
    const std::vector<std::string> loaded = loader.loadDirectory(directory);
    ASSERT_FALSE(loaded.empty());
    EXPECT_TRUE(std::any_of(loaded.begin(), loaded.end(),
                            [](const std::string& p) { return p.ends_with("/libZtkelZttool.so"); }));
    loader.initializePackages();
    InPackageInit* kel = InPackageManager::getInstance().find("kelZttool");
    ASSERT_NE(kel, nullptr);
    EXPECT_TRUE(InPackageManager::getInstance().isInitialized(kel));
    for (const std::type_info* dependency : kel->getDependencies())
        EXPECT_TRUE(InPackageManager::getInstance().isInitialized(InPackageManager::getInstance().find(*dependency)));
    ASSERT_NE(PiToolRegistry::getInstance().find("KEL"), nullptr);
    EXPECT_NE(InBuildInfoUtil::find("libZtkelZttool"), nullptr);
}

TEST(HostPluginLoader, AFileThatIsNoLibraryIsAnError) {
    const fs::path directory = fs::temp_directory_path() / ("kel-plugins-" + std::to_string(getpid()));
    fs::create_directories(directory);
    std::ofstream(directory / "libBroken.so") << "not an ELF file";
    std::ofstream(directory / "notALibrary.txt") << "ignored";
    PiPluginLoader loader;
    EXPECT_THROW(loader.loadDirectory(directory.string()), ExBase);
    fs::remove_all(directory);
    EXPECT_THROW(loader.loadDirectory(directory.string()), ExBase);  // no directory
}

// Pixel (x, y) = (x, y, 0, 1), validity narrowed by the tile's column and row; `inPlace` makes its
// tiles over the rows the caller offers.
class CoordinateNode : public PxImageProtocol {
public:
    explicit CoordinateNode(bool inPlace = false) : _inPlace(inPlace) {}
    PxImageFormat getFormat() const override { return {}; }
    PxRODResult getROD(const PxImageContext&) const override { return {}; }
    PxImageResult getImage(const PxImageContext& c) const override {
        PxRequestMgr::getInstance().checkRequest();
        const GeRectangle<int> r = convertTilesToPixels({c.tileX, c.tileX + 1, c.tileY, c.tileY + 1}, c);
        RCShdPtr<IxTile> tile(new IxTile({}, r, Color::ZERO, _inPlace ? c.destination : nullptr));
        for (int y = r.yMin; y < r.yMax; ++y)
            for (int x = r.xMin; x < r.xMax; ++x) tile->row(y)[x - r.xMin] = Color(float(x), float(y), 0.0f, 1.0f);
        return PxImageResult(tile, PxValidityInterval(-100.0 + c.tileX, 100.0 - c.tileY));
    }

private:
    bool _inPlace;
};

TEST(HostTileRenderer, ManyTilesOnManyThreadsGiveThePixelsOfOneThread) {
    CoordinateNode node;
    const GeRectangle<int> rect(0, 37, 0, 23);
    PxImageContext one;
    one.tileWidth = 64;
    one.tileHeight = 64;
    const PxRenderedImage reference = PxTileRenderer(1).render(node, rect, one);
    PxImageContext many;
    many.tileWidth = 3;
    many.tileHeight = 2;
    const PxRenderedImage tiled = PxTileRenderer(8).render(node, rect, many);
    ASSERT_EQ(tiled.pixels.size(), reference.pixels.size());
    for (std::size_t i = 0; i < tiled.pixels.size(); ++i) ASSERT_EQ(tiled.pixels[i], reference.pixels[i]) << i;
    EXPECT_EQ(tiled.at(36, 22), Color(36, 22, 0, 1));
    // Every tile narrows: the last column of tiles is 12, the last row 11.
    EXPECT_EQ(tiled.validity.begin, -100.0 + 12);
    EXPECT_EQ(tiled.validity.end, 100.0 - 11);
}

TEST(HostTileRenderer, RowsTheCallerHoldsAreFilledWhicheverWayTheyRun) {
    // Partial tiles on every side, and a corner away from the origin.
    const GeRectangle<int> rect(-3, 34, 2, 25);
    const std::ptrdiff_t width = rect.width(), height = rect.height();
    PxImageContext context;
    context.tileWidth = 8;
    context.tileHeight = 5;
    for (const bool inPlace : {false, true}) {
        for (const bool topRowFirst : {false, true}) {
            SCOPED_TRACE(std::string(inPlace ? "in place" : "copied") + (topRowFirst ? ", top row first" : ""));
            std::vector<Color> rows(std::size_t(width * height), Color(-1.0f));
            const PxTileDestination frame{topRowFirst ? rows.data() + (height - 1) * width : rows.data(),
                                          topRowFirst ? -width : width, rect};
            const PxValidityInterval validity = PxTileRenderer(3).render(CoordinateNode(inPlace), context, frame);
            for (int y = rect.yMin; y < rect.yMax; ++y)
                for (int x = rect.xMin; x < rect.xMax; ++x)
                    ASSERT_EQ(*frame.at(x, y), Color(float(x), float(y), 0, 1)) << x << "," << y;
            // Tile columns -1 to 4, rows 0 to 4.
            EXPECT_EQ(validity, PxValidityInterval(-100.0 + 4, 100.0 - 4));
        }
    }
}

// Each tile waits until `expected` distinct threads have entered one, so the render completes
// only if that many threads really run at once (a timeout turns a shortfall into a failure).
class RendezvousNode : public CoordinateNode {
public:
    explicit RendezvousNode(std::size_t expected) : _expected(expected) {}
    PxImageResult getImage(const PxImageContext& c) const override {
        std::unique_lock lock(_mutex);
        _threads.insert(std::this_thread::get_id());
        _changed.notify_all();
        if (!_gaveUp)
            _gaveUp = !_changed.wait_for(lock, std::chrono::seconds(10), [&] { return _threads.size() >= _expected; });
        lock.unlock();
        return CoordinateNode::getImage(c);
    }
    std::size_t threadsSeen() const {
        std::lock_guard lock(_mutex);
        return _threads.size();
    }

private:
    std::size_t _expected;
    mutable std::mutex _mutex;
    mutable std::condition_variable _changed;
    mutable std::set<std::thread::id> _threads;
    mutable bool _gaveUp = false;
};

TEST(HostTileRenderer, RunsAsManyThreadsAsAskedEvenAboveTheCoreCount) {
    RendezvousNode node(6);
    PxImageContext context;
    context.tileWidth = 1;
    context.tileHeight = 1;
    PxTileRenderer(6).render(node, GeRectangle<int>(0, 6, 0, 4), context);
    EXPECT_EQ(node.threadsSeen(), 6u);
}

// Recursion as deep as a deeply nested script's, on whichever thread takes the tile.
class DeepStackNode : public CoordinateNode {
public:
    PxImageResult getImage(const PxImageContext& c) const override {
        // 5 MiB, more than oneTBB's default 4 MiB worker stack, touched page by page downwards
        // the way a deep recursion grows, so a short stack meets its guard page.
        volatile char frame[5 << 20];
        for (std::size_t i = sizeof frame; i >= 4096; i -= 4096) frame[i - 1] = 1;
        frame[0] = 1;
        return CoordinateNode::getImage(c);
    }
};

TEST(HostTileRenderer, WorkersHaveTheMainThreadsStackSize) {
    DeepStackNode node;
    PxImageContext context;
    context.tileWidth = 1;
    context.tileHeight = 1;
    const PxRenderedImage image = PxTileRenderer(2).render(node, GeRectangle<int>(0, 8, 0, 8), context);
    EXPECT_EQ(image.at(7, 7), Color(7, 7, 0, 1));
}

TEST(HostTileRenderer, ProgressStartsAtZeroAndEndsAtTheTotal) {
    CoordinateNode node;
    PxImageContext context;
    context.tileWidth = 2;
    context.tileHeight = 2;
    PxTileRenderer renderer(3);
    std::vector<std::pair<std::size_t, std::size_t>> reports;
    const std::thread::id caller = std::this_thread::get_id();
    bool otherThread = false;
    renderer.setProgress([&](std::size_t done, std::size_t total) {
        otherThread |= std::this_thread::get_id() != caller;
        reports.emplace_back(done, total);
    });
    renderer.render(node, GeRectangle<int>(0, 10, 0, 10), context);
    ASSERT_GE(reports.size(), 2u);
    EXPECT_EQ(reports.front(), std::make_pair(std::size_t(0), std::size_t(25)));
    EXPECT_EQ(reports.back(), std::make_pair(std::size_t(25), std::size_t(25)));
    for (std::size_t i = 1; i < reports.size(); ++i) EXPECT_LE(reports[i - 1].first, reports[i].first);
    EXPECT_FALSE(otherThread);
}

TEST(HostTileRenderer, CancellationReachesTheCaller) {
    CoordinateNode node;
    PxImageContext context;
    context.tileWidth = 1;
    context.tileHeight = 1;
    PxRequestMgr::getInstance().cancel();
    EXPECT_THROW(PxTileRenderer(4).render(node, GeRectangle<int>(0, 10, 0, 10), context), ExCancelled);
    PxRequestMgr::getInstance().reset();
    EXPECT_NO_THROW(PxTileRenderer(4).render(node, GeRectangle<int>(0, 10, 0, 10), context));
}

}  // namespace
}  // namespace Zt
