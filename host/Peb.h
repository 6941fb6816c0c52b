// The expression tool base of the host framework: parameter records, errors, the run info base
// and the abstract interpreter that KelInterpreter implements (Parts 1.1 and 1.2).
#pragma once

#include <string>

#include "PxImage.h"
#include "ZtCore.h"
#include "ZtRC.h"

namespace Zt {

struct PebInterpreterTypes {
    enum Type { Float = 1, Image = 3, Color = 4 };
};

// Where in the script a person should look: the line and column (both from 1) of the token a
// message is about; 0 when unknown.
struct PebSourcePosition {
    int line = 0;
    int column = 0;
};

class PebError {
public:
    PebError(std::string message, int line, PebSourcePosition position = {})
        : _message(std::move(message)), _line(line), _position(position) {}
    const std::string& getMessage() const { return _message; }
    int getLine() const { return _line; }
    // The token the message is about. For a syntax error it is where the parser stopped, which
    // may stand on an earlier line than getLine() when blank lines or comments came between.
    const PebSourcePosition& getPosition() const { return _position; }
    // Two errors are the same when they say the same at the same line; the position only helps
    // a person find it.
    bool operator==(const PebError& other) const { return _message == other._message && _line == other._line; }
private:
    std::string _message;
    int _line;
    PebSourcePosition _position;
};

class PebParameterInfo {
public:
    PebParameterInfo(std::string name, PebInterpreterTypes::Type type, bool output, bool varying)
        : _name(std::move(name)), _type(type), _output(output), _varying(varying) {}
    std::string getName() const { return _name; }
    PebInterpreterTypes::Type getType() const { return _type; }
    bool isOutput() const { return _output; }
    bool isVarying() const { return _varying; }
private:
    std::string _name;
    PebInterpreterTypes::Type _type;
    bool _output;
    bool _varying;
};

class PebRunInfo : public RCBase<LkCounter<int>> {
public:
    explicit PebRunInfo(const Vector<PebParameterInfo>& params) : _params(params) {}
    ~PebRunInfo() override = default;
    const Vector<PebParameterInfo>& getParams() const { return _params; }
private:
    Vector<PebParameterInfo> _params;
};

class PebInterpreter {
public:
    virtual ~PebInterpreter() = default;
    virtual bool parse(const std::string& script, const RCShdPtr<PebRunInfo>& runInfo, Vector<PebError>* errors) const = 0;
    virtual PxImageResult eval(const RCShdPtr<PebRunInfo>& runInfo, const Vector<PxNodePtr<const PxImageProtocol>>& inputs,
                               const Vector<double>& params, const PxRODResult& rod, const IxPixelFormat& format,
                               const PxImageContext& context) const = 0;
    virtual RCShdPtr<PebRunInfo> createRunInfo(const Vector<PebParameterInfo>& params) const = 0;
};

}  // namespace Zt
