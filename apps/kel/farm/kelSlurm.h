// Slurm through its client commands: submitting a job array (sbatch) and reading the states of
// its tasks (squeue, which keeps finished tasks for a while, else sacct). What a job renders
// travels in its comment, so that a job id is all `kel submit status` needs.
#pragma once

#include <optional>
#include <string>
#include <vector>


namespace Zt::KelApp {

// The sequence a job renders: its frames as --frames gave them, the frames per chunk (array
// task i renders chunk i) and the absolute output pattern.
struct SequenceRecord {
    std::string frames;
    int chunk = 1;
    std::string output;
};

// The record as a job comment on one line, the path percent-encoded (no space, no '|'), and
// back; nullopt for a comment that holds no record.
std::string encodeRecord(const SequenceRecord& record);
std::optional<SequenceRecord> decodeRecord(const std::string& comment);

struct TaskState {
    int index;
    std::string state;  // as Slurm names it: PENDING, RUNNING, COMPLETED, CANCELLED, FAILED...
};

// Whether a task in `state` may still write frames: it has not ended, or will run again.
bool isUnfinished(const std::string& state);

struct JobTasks {
    std::string comment;
    std::vector<TaskState> tasks;  // the tasks Slurm still knows, one per index
};

// The tasks of array job `job` as squeue knows them, else as sacct does. FileError when
// neither knows the job.
JobTasks queryJob(const std::string& job);

struct ArraySubmission {
    std::vector<int> tasks;  // array task indices
    std::string name;
    std::string comment;
    std::string partition;  // empty: the cluster's default
    int cpusPerTask = 0;    // 0: the cluster's default
    std::string command;    // run by /bin/sh in each task, with SLURM_ARRAY_TASK_ID set
};

// Submits the array with sbatch from the current directory (the tasks' working directory);
// returns the job id. FileError with sbatch's reason when it refuses.
std::string submitArray(const ArraySubmission& submission);

}  // namespace Zt::KelApp
