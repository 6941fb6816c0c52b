#include "kelChannels.h"

#include <OpenImageIO/strutil.h>

#include <algorithm>
#include <set>

#include "kelImageIO.h"

namespace Zt::KelApp {

namespace {

namespace Strutil = OIIO::Strutil;

// A channel's layer ("" outside any) and its own name: "diffuse.R" is ("diffuse", "R").
std::pair<std::string, std::string> splitName(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos) return {"", name};
    return {name.substr(0, dot), name.substr(dot + 1)};
}

// The channel of `layer` called `name` (any case), -1 if none.
int findChannel(const OIIO::ImageSpec& spec, const std::string& layer, const char* name) {
    for (int c = 0; c < spec.nchannels; ++c) {
        const auto [l, n] = splitName(spec.channel_name(c));
        if (l == layer && Strutil::iequals(n, name)) return c;
    }
    return -1;
}

bool hasColourByName(const OIIO::ImageSpec& spec, const std::string& layer) {
    return findChannel(spec, layer, "R") >= 0 || findChannel(spec, layer, "G") >= 0 ||
           findChannel(spec, layer, "B") >= 0 || findChannel(spec, layer, "Y") >= 0;
}

}  // namespace

ChannelChoice chooseChannels(const OIIO::ImageSpec& spec, const std::string& layer, const std::string& what) {
    std::set<std::string> layers;
    for (int c = 0; c < spec.nchannels; ++c)
        if (const std::string l = splitName(spec.channel_name(c)).first; !l.empty() && hasColourByName(spec, l)) layers.insert(l);
    const std::string layerList = layers.empty() ? "none" : Strutil::join(layers, ", ");

    ChannelChoice choice;
    const int r = findChannel(spec, layer, "R"), g = findChannel(spec, layer, "G"), b = findChannel(spec, layer, "B");
    const int y = findChannel(spec, layer, "Y");
    const int a = findChannel(spec, layer, "A") >= 0 ? findChannel(spec, layer, "A") : findChannel(spec, "", "A");
    if (layer.empty() && spec.nchannels <= 2) {
        // One or two channels are grey and alpha whatever their names (a two-channel TIFF calls
        // them R and G).
        choice.source[0] = choice.source[1] = choice.source[2] = 0;
        choice.source[3] = spec.nchannels == 2 ? 1 : -1;
    } else if (r >= 0 || g >= 0 || b >= 0) {
        // A missing colour channel of a named set reads as 0, as an absent light would. A fourth
        // channel that the file leaves unnamed (OpenImageIO calls it channel3) after R, G, B is
        // alpha, as the fourth of four unnamed channels is.
        const bool unnamedFourth = a < 0 && layer.empty() && r == 0 && g == 1 && b == 2 && spec.nchannels >= 4 &&
                                   spec.channel_name(3) == "channel3";
        choice.source[0] = r, choice.source[1] = g, choice.source[2] = b, choice.source[3] = unnamedFourth ? 3 : a;
    } else if (y >= 0) {
        choice.source[0] = choice.source[1] = choice.source[2] = y;
        choice.source[3] = a;
    } else if (!layer.empty()) {
        throw FileError("cannot read " + what + ": it has no layer " + layer + " with R, G, B or Y channels (its layers: " +
                        layerList + ")");
    } else if (!layers.empty()) {
        throw FileError("cannot read " + what + ": its colour channels are all inside layers (" + layerList +
                        "); choose one with :layer=NAME");
    } else {
        // No channel says what it is: by position.
        choice.source[0] = 0, choice.source[1] = 1, choice.source[2] = 2;
        choice.source[3] = spec.nchannels >= 4 ? 3 : -1;
    }
    for (int c = 0; c < spec.nchannels; ++c)
        if (std::find(std::begin(choice.source), std::end(choice.source), c) == std::end(choice.source))
            choice.ignored.push_back(spec.channel_name(c));
    return choice;
}

}  // namespace Zt::KelApp
