// `kel submit`: a sequence rendered on a Slurm cluster as one job array, one task per chunk of
// frames, each task running `kel render ... --frames a-b --each-frame --skip-existing` (so a
// task writes its frames as they are done, and one run again redoes only the missing ones);
// and the report of what became of every frame of such a job.
#pragma once

#include <string>

#include "PebController.h"
#include "kelCommands.h"
#include "kelScript.h"

namespace Zt::KelApp {

// Compiles the script first (a script that is refused submits nothing), then submits one task
// for each chunk that has a frame still missing, and prints the job id on standard output.
// Returns the exit status.
int runSubmitSlurm(PebController& controller, const Invocation& in, const Script& script);

// Prints, for the job `in.farm.job`, how many frames are done, failed and pending, then a line
// for each chunk with frames failed or pending, naming them and the state of its task. Returns
// kExitFramesFailed when a frame failed (it will not be written unless it is submitted again),
// else kExitOk.
int runSubmitStatus(const Invocation& in);

}  // namespace Zt::KelApp
