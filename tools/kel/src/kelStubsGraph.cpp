// TEMPORARY link stubs for kelGraph.h (owner: evaluator work, Parts 4.x). Delete when real.
#include "kelGraph.h"
#define STUB Assertions::throwProgramAborted(__FILE__, __LINE__, "not implemented")
namespace Zt {
StatementBlockNode::StatementBlockNode(int line) : KelSyntaxTree(line) {}
void StatementBlockNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> StatementBlockNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> StatementBlockNode::check(KelContext&) { STUB; }
ForNode::ForNode(const KelNodePtr&, const KelNodePtr&, const KelNodePtr&, const KelBlockPtr&, int line) : KelSyntaxTree(line) {}
void ForNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> ForNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> ForNode::check(KelContext&) { STUB; }
WhileNode::WhileNode(const KelNodePtr&, const KelBlockPtr&, int line) : KelSyntaxTree(line) {}
void WhileNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> WhileNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> WhileNode::check(KelContext&) { STUB; }
IfNode::IfNode(const KelNodePtr&, const KelBlockPtr&, int line) : KelSyntaxTree(line) {}
void IfNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> IfNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> IfNode::check(KelContext&) { STUB; }
ParameterNode::ParameterNode(const std::string&, const std::string&, bool, int line) : KelSyntaxTree(line), _type(0), _direction(0) {}
void ParameterNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> ParameterNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> ParameterNode::check(KelContext&) { STUB; }
FunctionDeclarationNode::FunctionDeclarationNode(const std::string& name, const KelBlockPtr&, int line) : KelSyntaxTree(line), _name(name) {}
void FunctionDeclarationNode::declareParameters(KelContext&) const { STUB; }
void FunctionDeclarationNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> FunctionDeclarationNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> FunctionDeclarationNode::check(KelContext&) { STUB; }
UnaryOpNode::UnaryOpNode(const std::string&, const KelNodePtr&, int line) : KelSyntaxTree(line) {}
void UnaryOpNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> UnaryOpNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> UnaryOpNode::check(KelContext&) { STUB; }
BinaryOpNode::BinaryOpNode(const std::string&, const KelNodePtr&, const KelNodePtr&, int line) : KelSyntaxTree(line), _op(0) {}
void BinaryOpNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> BinaryOpNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> BinaryOpNode::check(KelContext&) { STUB; }
AssignNode::AssignNode(const std::string&, const std::string&, const KelNodePtr&, int line, int) : KelSyntaxTree(line), _op(0), _checkConst(0) {}
void AssignNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> AssignNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> AssignNode::check(KelContext&) { STUB; }
InitVarNode::InitVarNode(const std::string&, const std::string&, bool, int line) : KelSyntaxTree(line), _type(0), _writable(0) {}
void InitVarNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> InitVarNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> InitVarNode::check(KelContext&) { STUB; }
InitVarAssignNode::InitVarAssignNode(const std::string& t, const std::string& n, const KelNodePtr& v, bool w, int line)
    : KelSyntaxTree(line), _init(t, n, w, line), _assign(n, "=", v, line, 0) {}
void InitVarAssignNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> InitVarAssignNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> InitVarAssignNode::check(KelContext&) { STUB; }
VariableNode::VariableNode(const std::string&, int line) : KelSyntaxTree(line) {}
void VariableNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> VariableNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> VariableNode::check(KelContext&) { STUB; }
FloatLiteralNode::FloatLiteralNode(float v, int line) : KelSyntaxTree(line), _value(v) {}
void FloatLiteralNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> FloatLiteralNode::eval(KelContext&) const { STUB; }
RCShdPtr<KelValue> FloatLiteralNode::check(KelContext&) { STUB; }
FunctionCallNode::FunctionCallNode(const std::string& name, int line) : KelSyntaxTree(line), _name(name) {}
void FunctionCallNode::addOverloadParameter(int, int, int) {}
void FunctionCallNode::setReturnType(int, int) {}
void FunctionCallNode::print(std::ostream&) const { STUB; }
RCShdPtr<KelValue> FunctionCallNode::check(KelContext&) { STUB; }
RCShdPtr<KelValue> wrapInSample(KelNodePtr&, int, KelContext&) { STUB; }
std::map<std::string, int> KelOperatorTables::assignOperators;
std::map<std::string, int> KelOperatorTables::binaryOperators;
std::map<std::string, int> KelOperatorTables::typeNames;
std::map<int, KelOperatorTables::BinaryFloat> KelOperatorTables::floatOperations;
std::map<int, KelOperatorTables::BinaryColor> KelOperatorTables::colorOperations;
std::map<int, KelOperatorTables::BinaryFloatColor> KelOperatorTables::floatColorOperations;
std::map<int, KelOperatorTables::BinaryColorFloat> KelOperatorTables::colorFloatOperations;
std::map<int, KelOperatorTables::CompareColor> KelOperatorTables::colorCompareOperations;
std::map<int, KelOperatorTables::AssignFloat> KelOperatorTables::floatAssignOperations;
std::map<int, KelOperatorTables::AssignColor> KelOperatorTables::colorAssignOperations;
std::map<int, KelOperatorTables::AssignColorFloat> KelOperatorTables::colorFloatAssignOperations;
void KelOperatorTables::build() {}
}  // namespace Zt
