#include "kelSubmit.h"

#include <filesystem>
#include <iostream>
#include <map>

#include "kelFrameChunks.h"
#include "kelImageIO.h"
#include "kelProgram.h"
#include "kelRender.h"
#include "kelSlurm.h"

namespace Zt::KelApp {

namespace fs = std::filesystem;

namespace {

// The shell command of every task: array task i renders chunk i, its frames looked up in a
// table so that any list of frames cuts the same way. The task gets as many threads as Slurm
// gave it CPUs, unless the render's arguments name a thread count (then the submission asked
// for that many CPUs per task).
std::string taskCommand(const Invocation& in, const FrameChunks& chunks, const std::vector<int>& tasks) {
    std::string command = "case $SLURM_ARRAY_TASK_ID in";
    for (const int task : tasks) command += " " + std::to_string(task) + ") frames=" + numberRanges(chunks.chunk(task)) + ";;";
    command += " esac; exec " + shellWord(fs::read_symlink("/proc/self/exe").string()) + " render";
    for (const std::string& argument : in.farm.renderArguments) command += " " + shellWord(argument);
    command += " --frames=\"$frames\" --each-frame --skip-existing";
    if (in.threads == 0) command += " --threads=\"$SLURM_CPUS_ON_NODE\"";
    return command;
}

}  // namespace

int runSubmitSlurm(PebController& controller, const Invocation& in, const Script& script) {
    const bool ok = compile(controller, in, script);
    printErrors(script, controller);
    if (!ok) {
        std::cerr << "kel: the script was refused; nothing submitted\n";
        return kExitRefused;
    }
    const FrameChunks chunks{in.frames, in.farm.chunk};
    std::vector<int> tasks;
    for (int i = 0; i < chunks.count(); ++i) {
        const std::vector<int> missing = missingFrames(in.outputPath, chunks.chunk(i));
        for (const int frame : missing) checkWritable(expandFramePath(in.outputPath, frame));
        if (!missing.empty()) tasks.push_back(i);
    }
    const std::string frames = numberRanges(in.frames);
    if (tasks.empty()) {
        std::cerr << "kel: frames " << frames << " of " << in.outputPath << " exist already; nothing submitted\n";
        return kExitOk;
    }
    ArraySubmission submission;
    submission.tasks = tasks;
    submission.name = "kel:" + fs::path(in.outputPath).filename().string();
    submission.comment = encodeRecord({frames, chunks.size, fs::absolute(in.outputPath).lexically_normal().string()});
    submission.partition = in.farm.partition;
    submission.cpusPerTask = in.threads;
    submission.command = taskCommand(in, chunks, tasks);
    const std::string job = submitArray(submission);
    std::cout << job << "\n";
    std::cerr << "kel: submitted job " << job << ": frames " << frames << " of " << in.outputPath << " in "
              << tasks.size() << " task" << (tasks.size() == 1 ? "" : "s") << " of up to " << chunks.size
              << " frames";
    if (int(tasks.size()) < chunks.count())
        std::cerr << " (tasks " << numberRanges(tasks) << " of " << chunks.count() << "; the other chunks are done)";
    std::cerr << "\n";
    return kExitOk;
}

int runSubmitStatus(const Invocation& in) {
    const JobTasks job = queryJob(in.farm.job);
    const std::optional<SequenceRecord> record = decodeRecord(job.comment);
    if (!record) throw UsageError("job " + in.farm.job + " is not a sequence submitted by kel submit slurm");
    std::map<int, std::string> states;
    for (const TaskState& task : job.tasks) states[task.index] = task.state;

    const FrameChunks chunks{parseFrames(record->frames), record->chunk};
    std::size_t done = 0, failed = 0, pending = 0;
    std::vector<std::string> failedLines, pendingLines;
    for (int i = 0; i < chunks.count(); ++i) {
        const std::vector<int> frames = chunks.chunk(i);
        const std::vector<int> missing = missingFrames(record->output, frames);
        done += frames.size() - missing.size();
        if (missing.empty()) continue;
        const auto state = states.find(i);
        const bool unfinished = state != states.end() && isUnfinished(state->second);
        const std::string line = numberRanges(missing) + ": task " + std::to_string(i) + " " +
                                 (state == states.end() ? "no longer known to Slurm" : state->second);
        (unfinished ? pendingLines : failedLines).push_back(line);
        (unfinished ? pending : failed) += missing.size();
    }
    std::cout << "job " << in.farm.job << ": frames " << record->frames << " of " << record->output << ": " << done
              << " done, " << failed << " failed, " << pending << " pending\n";
    for (const std::string& line : failedLines) std::cout << "failed " << line << "\n";
    for (const std::string& line : pendingLines) std::cout << "pending " << line << "\n";
    return failed > 0 ? kExitFramesFailed : kExitOk;
}

}  // namespace Zt::KelApp
