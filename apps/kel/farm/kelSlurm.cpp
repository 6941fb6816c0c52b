#include "kelSlurm.h"

#include <algorithm>
#include <cctype>
#include <regex>
#include <sstream>

#include "kelFrameChunks.h"
#include "kelImageIO.h"
#include "kelProgram.h"

namespace Zt::KelApp {

namespace {

bool isPlain(unsigned char c) { return c > ' ' && c < 0x7f && c != '%' && c != '|'; }

std::string percentEncode(const std::string& text) {
    static const char* const hex = "0123456789ABCDEF";
    std::string out;
    for (const unsigned char c : text) {
        if (isPlain(c)) {
            out += char(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::optional<std::string> percentDecode(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size() || !std::isxdigit((unsigned char)text[i + 1]) || !std::isxdigit((unsigned char)text[i + 2]))
            return std::nullopt;
        out += char(std::stoi(text.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return out;
}

// An array's task indices as Slurm writes them: 3, or 4-7,9 (a pending remainder), maybe with
// a %N limit on running tasks.
std::vector<int> parseIndices(std::string text) {
    std::vector<int> indices;
    text = text.substr(0, text.find('%'));
    std::istringstream parts(text);
    for (std::string part; std::getline(parts, part, ',');) {
        static const std::regex range("([0-9]+)(?:-([0-9]+))?(?::([0-9]+))?");
        std::smatch m;
        if (!std::regex_match(part, m, range)) continue;
        const int first = std::stoi(m[1]), last = m[2].matched ? std::stoi(m[2]) : first;
        const int step = m[3].matched ? std::max(1, std::stoi(m[3])) : 1;
        for (int i = first; i <= last; i += step) indices.push_back(i);
    }
    return indices;
}

std::vector<std::string> splitFields(const std::string& line, std::size_t count) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    while (fields.size() + 1 < count) {
        const std::size_t bar = line.find('|', start);
        if (bar == std::string::npos) break;
        fields.push_back(line.substr(start, bar - start));
        start = bar + 1;
    }
    fields.push_back(line.substr(start));
    return fields;
}

// Lines of INDICES|STATE|COMMENT, INDICES as `taskIndices` takes them from the first field.
template <typename TaskIndices>
JobTasks parseTaskLines(const std::string& text, TaskIndices taskIndices) {
    JobTasks job;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> fields = splitFields(line, 3);
        if (fields.size() < 3) continue;
        const std::string state = fields[1].substr(0, fields[1].find(' '));  // "CANCELLED by 0"
        for (const int index : taskIndices(fields[0])) job.tasks.push_back({index, state});
        if (!fields[2].empty()) job.comment = fields[2];
    }
    return job;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

}  // namespace

std::string encodeRecord(const SequenceRecord& record) {
    return "kel frames=" + record.frames + " chunk=" + std::to_string(record.chunk) +
           " output=" + percentEncode(record.output);
}

std::optional<SequenceRecord> decodeRecord(const std::string& comment) {
    static const std::regex form("kel frames=([-,x0-9]+) chunk=([1-9][0-9]{0,8}) output=(\\S+)");
    std::smatch m;
    if (!std::regex_match(comment, m, form)) return std::nullopt;
    const std::optional<std::string> output = percentDecode(m[3]);
    if (!output) return std::nullopt;
    return SequenceRecord{m[1], std::stoi(m[2]), *output};
}

bool isUnfinished(const std::string& state) {
    static const char* const unfinished[] = {"PENDING",   "CONFIGURING", "RUNNING",      "COMPLETING", "SUSPENDED",
                                             "STOPPED",   "REQUEUED",    "REQUEUE_FED",  "REQUEUE_HOLD",
                                             "RESIZING",  "SIGNALING",   "STAGE_OUT",    "RESV_DEL_HOLD"};
    return std::find(std::begin(unfinished), std::end(unfinished), state) != std::end(unfinished);
}

JobTasks queryJob(const std::string& job) {
    // squeue names each task's index (%K) once the array is expanded (--array); it forgets
    // finished tasks after the cluster's MinJobAge.
    const ProgramRun queue = runProgram({"squeue", "--jobs=" + job, "--array", "--states=all", "--noheader",
                                         "--format=%K|%T|%k"});
    if (queue.status == 0 && !queue.out.empty()) return parseTaskLines(queue.out, parseIndices);
    // sacct names tasks JOB_3, or JOB_[4-7] for those still pending together.
    const ProgramRun accounting = runProgram({"sacct", "--jobs=" + job, "--allocations", "--noheader",
                                              "--parsable2", "--format=JobID,State,Comment"});
    if (accounting.status == 0 && !accounting.out.empty())
        return parseTaskLines(accounting.out, [](const std::string& id) {
            std::string indices = id.substr(id.find('_') + 1);
            if (indices.starts_with("[")) indices = indices.substr(1, indices.find(']') - 1);
            return parseIndices(indices);
        });
    throw FileError("Slurm knows no job " + job + " (squeue: " +
                    (queue.status == 0 ? "no such job" : firstLine(queue.err)) + "; sacct: " +
                    (accounting.status == 0 ? "no such job" : firstLine(accounting.err)) + ")");
}

std::string submitArray(const ArraySubmission& submission) {
    std::vector<std::string> argv{"sbatch", "--parsable", "--array=" + numberRanges(submission.tasks),
                                  "--job-name=" + submission.name, "--comment=" + submission.comment};
    if (!submission.partition.empty()) argv.push_back("--partition=" + submission.partition);
    if (submission.cpusPerTask > 0) argv.push_back("--cpus-per-task=" + std::to_string(submission.cpusPerTask));
    argv.push_back("--wrap=" + submission.command);
    const ProgramRun run = runProgram(argv);
    // --parsable prints JOBID or JOBID;CLUSTER.
    static const std::regex jobId("([0-9]+)(;\\S*)?\\s*");
    std::smatch m;
    if (run.status != 0 || !std::regex_match(run.out, m, jobId)) {
        std::string reason = run.err.empty() ? run.out : run.err;
        // sbatch's last line says why the submission failed.
        while (!reason.empty() && reason.back() == '\n') reason.pop_back();
        reason = reason.substr(reason.find_last_of('\n') + 1);
        if (reason.starts_with("sbatch: error: ")) reason = reason.substr(15);
        throw FileError("sbatch did not submit the job: " + (reason.empty() ? "exit status " + std::to_string(run.status) : reason));
    }
    return m[1];
}

}  // namespace Zt::KelApp
