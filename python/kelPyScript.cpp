#include "kelPyScript.h"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <mutex>

#include "kelDeclarations.h"
#include "kelFrame.h"
#include "kelImageIO.h"
#include "kelOptions.h"
#include "kelPlugins.h"
#include "kelPyArguments.h"
#include "kelPyArrays.h"
#include "kelPyImage.h"
#include "kelPyRender.h"

namespace Zt::KelPython {

namespace {

// The directory of this module's own library: the plug-ins are found in ../plugins beside it,
// as the command finds them beside its executable (build/python and build/bin both sit beside
// build/plugins).
std::string moduleDirectory() {
    Dl_info info;
    std::error_code error;
    if (dladdr(reinterpret_cast<void*>(&moduleDirectory), &info) && info.dli_fname) {
        const std::filesystem::path library = std::filesystem::canonical(info.dli_fname, error);
        if (!error) return library.parent_path().string();
    }
    return ".";
}

// The parser keeps static state: one compilation at a time, on the thread that is the
// application thread while it runs.
std::mutex gCompiling;

struct RenderOptions {
    KelApp::FrameRequest request;
    int threads = 0;  // every core
};

// The keyword arguments of render() that are not the script's parameters, with the command's
// limits (--scale-level, --threads).
using OptionSetter = void (*)(RenderOptions&, py::handle);
const std::pair<const char*, OptionSetter> kRenderOptions[] = {
    {"time", [](RenderOptions& o, py::handle v) { o.request.time = timeArgument("time", v); }},
    {"threads", [](RenderOptions& o, py::handle v) { o.threads = integerArgument("threads", v, 0, 4096); }},
    {"tile", [](RenderOptions& o, py::handle v) { o.request.tile = sizeArgument("tile", v); }},
    {"size", [](RenderOptions& o, py::handle v) { o.request.size = sizeArgument("size", v); }},
    {"scale_level", [](RenderOptions& o, py::handle v) { o.request.scaleLevel = integerArgument("scale_level", v, 0, 16); }},
    {"pixel_aspect",
     [](RenderOptions& o, py::handle v) {
         const IxPixelFormat format = pixelAspectArgument("pixel_aspect", v);
         o.request.pixelAspect = {format.aspectNum, format.aspectDen};
     }},
};

OptionSetter findOption(const std::string& name) {
    for (const auto& [option, setter] : kRenderOptions)
        if (name == option) return setter;
    return nullptr;
}

std::vector<std::pair<int, std::string>> linesAndMessages(const Vector<PebError>& errors) {
    std::vector<std::pair<int, std::string>> result;
    for (const PebError& e : errors) result.emplace_back(e.getLine(), e.getMessage());
    return result;
}

void addParameter(PebController& controller, const std::string& name, PebInterpreterTypes::Type type) {
    if (findOption(name))
        throw py::value_error("'" + name + "' names an option of render(); give the parameter another name");
    if (!controller.addDynamicInput(name, type))
        throw py::value_error("'" + name + "' can't be a parameter: a parameter is an identifier, named once, and not the output");
}

}  // namespace

std::shared_ptr<CompiledScript> CompiledScript::compile(const std::string& source,
                                                        std::optional<std::vector<std::string>> images,
                                                        std::optional<FloatInputs> floats) {
    const KelApp::ScriptDeclarations declared = KelApp::readDeclarations(source);
    if (!declared.problems.empty()) {
        ScriptRefused refused;
        for (const auto& problem : declared.problems) refused.errors.emplace_back(problem.line, problem.message);
        throw refused;
    }
    using Kind = KelApp::DeclaredParameter::Kind;
    if (!images) {
        images.emplace();
        for (const auto& p : declared.parameters)
            if (p.kind == Kind::Image) images->push_back(p.name);
    }
    if (!floats) {
        floats.emplace();
        for (const auto& p : declared.parameters)
            if (p.kind == Kind::Float) floats->emplace_back(p.name, p.defaultValue.value_or(0.0));
    }

    std::shared_ptr<CompiledScript> script(new CompiledScript);
    script->_images = std::move(*images);
    script->_floats = std::move(*floats);
    {
        py::gil_scoped_release released;
        const std::lock_guard lock(gCompiling);
        PiAppThread::setCurrent();
        try {
            script->_controller = &KelApp::createController(script->_holder, moduleDirectory());
        } catch (const KelApp::UsageError& e) {
            throw std::runtime_error(e.what());
        }
        PebController& controller = *script->_controller;
        const std::string output = declared.outputName().value_or("out");
        if (!controller.setOutputName(output)) throw py::value_error("'" + output + "' can't be the output's name");
        for (const std::string& name : script->_images) addParameter(controller, name, PebInterpreterTypes::Image);
        for (const auto& [name, value] : script->_floats) addParameter(controller, name, PebInterpreterTypes::Float);
        controller.setScript(source);
    }
    if (!script->_controller->isCompiled()) throw ScriptRefused{linesAndMessages(script->_controller->getErrors())};
    script->_warnings = linesAndMessages(script->_controller->getErrors());
    return script;
}

py::array CompiledScript::render(const py::kwargs& arguments) const {
    RenderOptions options;
    Vector<PxNodePtr<const PxImageProtocol>> inputs(_images.size());
    Vector<double> values;
    for (const auto& [name, value] : _floats) values.push_back(value);

    for (const auto& [key, value] : arguments) {
        const std::string name = py::str(key);
        if (const auto image = std::find(_images.begin(), _images.end(), name); image != _images.end()) {
            inputs[std::size_t(image - _images.begin())] =
                PxNodePtr<const PxImageProtocol>(new ArrayImage(rgbaArray(value, name)));
        } else if (const auto number = std::find_if(_floats.begin(), _floats.end(), [&](const auto& f) { return f.first == name; });
                   number != _floats.end()) {
            values[std::size_t(number - _floats.begin())] = numberArgument(name, value);
        } else if (const OptionSetter setter = findOption(name)) {
            setter(options, value);
        } else {
            throw py::type_error("render() got an unexpected keyword argument '" + name + "'");
        }
    }
    for (std::size_t i = 0; i < _images.size(); ++i)
        if (!inputs[i]) throw py::type_error("render() is missing the image input '" + _images[i] + "'");
    if (_images.empty() && !options.request.size)
        throw py::value_error("render() needs size=(width, height): the script has no image input");
    if (!_images.empty() && options.request.size)
        throw py::value_error("size can't be given: the image input '" + _images.front() + "' gives the frame's size");

    PebController& controller = *_controller;
    PxTileRenderer renderer(options.threads);
    TopFirstFrame output;
    try {
        renderInterruptibly([&] {
            KelApp::RenderedFrame frame;
            KelApp::renderFrame(controller, renderer, inputs, values, options.request, "the frame",
                                [&](const GeRectangle<int>& rect) { return output.rows(rect); }, frame);
            return frame;
        });
    } catch (const KelApp::FileError& e) {
        PyErr_SetString(PyExc_MemoryError, e.what());
        throw py::error_already_set();
    }
    return output.toArray();
}

}  // namespace Zt::KelPython
