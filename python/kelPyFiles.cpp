#include "kelPyFiles.h"

#include "kelImageFiles.h"
#include "kelPyArrays.h"

namespace Zt::KelPython {

py::array readImageFile(const std::string& path) {
    PxNodePtr<PxMemoryImage> image;
    try {
        py::gil_scoped_release released;
        image = KelApp::readImage(path, PxValidityInterval::getFull());
    } catch (const KelApp::FileError& e) {
        PyErr_SetString(PyExc_OSError, e.what());
        throw py::error_already_set();
    }
    return copyFrame(&image->pixel(0, 0), image->width(), image->height());
}

void writeImageFile(const std::string& path, py::handle image, const IxPixelFormat& format) {
    const RgbaArray rgba = rgbaArray(image, "image");
    PxRenderedImage frame;
    frame.rect = GeRectangle<int>(0, int(rgba.shape(1)), 0, int(rgba.shape(0)));
    frame.pixels = bottomFirstPixels(rgba);
    frame.validity = PxValidityInterval::getFull();
    try {
        py::gil_scoped_release released;
        KelApp::checkWritable(path);
        KelApp::OutputFiles output;
        output.write(path, frame, format);
        output.commit();
    } catch (const KelApp::FileError& e) {
        PyErr_SetString(PyExc_OSError, e.what());
        throw py::error_already_set();
    }
}

}  // namespace Zt::KelPython
