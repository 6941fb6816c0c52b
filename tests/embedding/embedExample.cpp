// A small C++ host of the KEL engine: loads the plug-in, compiles a script against a parameter
// list, evaluates the output tile by tile, and reads the errors of a script that fails.
// Usage: embedExample PLUGIN_DIRECTORY
#include <cstdio>
#include <memory>
#include <vector>

#include "PebController.h"
#include "PiPluginLoader.h"
#include "PxMemoryImage.h"

using namespace Zt;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PLUGIN_DIRECTORY\n", argv[0]);
        return 2;
    }

    // 1. Load the plug-in libraries and initialise their packages: the KEL package registers
    //    its tool "KEL" in the host's tool registry.
    PiPluginLoader loader;
    loader.loadDirectory(argv[1]);
    loader.initializePackages();
    PiToolProtocol* tool = PiToolRegistry::getInstance().find("KEL");
    if (!tool) {
        std::fprintf(stderr, "no tool KEL in %s\n", argv[1]);
        return 1;
    }

    // 2. A node of the tool: its controller keeps the parameter list and the script.
    std::unique_ptr<PiNodeController> holder = tool->createController();
    PebController& node = dynamic_cast<PebController&>(*holder);
    node.nodeCreated();
    node.addDynamicInput("src", PebInterpreterTypes::Image);  // parameter 0: an image input
    node.addDynamicInput("gain", PebInterpreterTypes::Float);  // parameter 1: a float input
    node.setOutputName("out");                                  // the output comes last

    // 3. Compile (on this, the application thread): setScript compiles at once.
    node.setScript("out = src * color(gain, gain, gain, 1);\n");
    if (!node.isCompiled()) {
        std::fprintf(stderr, "the script was refused\n");
        return 1;
    }

    // 4. An input picture of 8 x 4 pixels, pixel (x, y) = (x, y, 1, 1), row 0 at the bottom.
    const int width = 8, height = 4;
    std::vector<Color> pixels;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) pixels.push_back(Color(float(x), float(y), 1.0f, 1.0f));
    PxNodePtr<const PxImageProtocol> input = new PxMemoryImage(width, height, pixels);

    // 5. The processing node: the inputs in the order of the image parameters, the values in
    //    the order of the float parameters, the output's rectangle and pixel format.
    PxImageContext context;
    const PxRODResult rod = input->getROD(context);
    PxNodePtr<const PxImageProtocol> effect = node.createModifierProcNode({input}, {0.5}, rod, IxPixelFormat{});

    // 6. Evaluate the output in tiles of 4 x 2 pixels (any thread may evaluate a tile; the
    //    host's PxTileRenderer shares them out among threads), and check every pixel.
    context.tileWidth = 4;
    context.tileHeight = 2;
    int wrong = 0;
    for (context.tileY = 0; context.tileY * context.tileHeight < height; ++context.tileY)
        for (context.tileX = 0; context.tileX * context.tileWidth < width; ++context.tileX) {
            const PxImageResult result = effect->getImage(context);
            const IxTile& tile = *result.getTile();
            const GeRectangle<int>& r = tile.getRect();
            for (int y = r.yMin; y < r.yMax; ++y)
                for (int x = r.xMin; x < r.xMax; ++x) {
                    const Color& c = tile.row(y)[x - r.xMin];
                    if (c.r != 0.5f * float(x) || c.g != 0.5f * float(y) || c.b != 0.5f || c.a != 1.0f) ++wrong;
                }
            std::printf("tile (%d, %d): pixels %d..%d x %d..%d\n", context.tileX, context.tileY, r.xMin, r.xMax - 1,
                        r.yMin, r.yMax - 1);
        }
    std::printf("%d wrong pixels\n", wrong);

    // 7. A script with a mistake: compiling fails, and the errors tell the line.
    node.setScript("float k = 1;\nout = color(k, k, q, 1);\n");
    for (const PebError& e : node.getErrors()) std::printf("line %d: %s\n", e.getLine(), e.getMessage().c_str());
    const bool refused = !node.isCompiled() && node.getErrors().size() == 1 && node.getErrors()[0].getLine() == 2;

    return wrong == 0 && refused ? 0 : 1;
}
