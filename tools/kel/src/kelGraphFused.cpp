// Runs of statements compiled into programs of strips (kelProgram.h): the pass that finds them
// in every block after the check, and FusedStatementsNode, which stands for a run in its block.
// A run is as long as the statements that compile allow; a statement that does not compile
// stays in the tree walk and ends the run, and the blocks under it are fused in turn.
#include "kelGraph.h"
#include "kelProgram.h"

namespace Zt {

void StatementBlockNode::fuse(KelFusion& fusion) {
    std::vector<KelNodePtr> statements;
    std::vector<KelNodePtr> run;
    KelProgramBuilder builder(fusion.scope);
    auto endRun = [&] {
        if (run.empty()) return;
        statements.push_back(new FusedStatementsNode(std::move(run), builder.finish(), fusion.programs++));
        run.clear();
    };
    for (const KelNodePtr& statement : _statements) {
        builder.begin();
        const int value = statement->compile(builder);
        if (value != KelProgramBuilder::kFails) {
            builder.discard(value);
            run.push_back(statement);
            continue;
        }
        builder.rollBack();
        endRun();
        statement->fuse(fusion);
        statements.push_back(statement);
    }
    endRun();
    _statements = std::move(statements);
}

// Only the first statement is asked: what runs before it could read the variable.
bool StatementBlockNode::writesBeforeReading(int variable) const {
    return !_statements.empty() && _statements.front()->writesBeforeReading(variable);
}

FusedStatementsNode::FusedStatementsNode(std::vector<KelNodePtr> statements, std::unique_ptr<KelProgram> program, int index)
    : KelSyntaxTree(statements.empty() ? 0 : statements.front()->line()),
      _statements(std::move(statements)),
      _program(std::move(program)),
      _index(index) {}

FusedStatementsNode::~FusedStatementsNode() = default;

void FusedStatementsNode::print(std::ostream& out) const {
    for (const KelNodePtr& statement : _statements) statement->print(out);
}

RCShdPtr<KelValue> FusedStatementsNode::eval(KelContext& context) const {
    KelProgramRun& run = context.programRun(_index, *_program);
    if (run.usable()) {
        run.run(context);
    } else {
        for (const KelNodePtr& statement : _statements) statement->eval(context);
    }
    return nullptr;
}

// Made after the check; checking it again checks its statements.
RCShdPtr<KelValue> FusedStatementsNode::check(KelContext& context) {
    for (const KelNodePtr& statement : _statements) statement->check(context);
    return nullptr;
}

bool FusedStatementsNode::writesBeforeReading(int variable) const { return _program->writesBeforeReading(variable); }

}  // namespace Zt
