/// What vokctl does, by command.
#pragma once

#include "ctl/CommandLine.h"
#include "ctl/Output.h"

namespace vok::ctl {

/// Runs what was asked for. The exit status; throws CFailure for the failures that have something
/// to say.
int RunCommand(const Options& options, COutput& output);

// ---- One each, in the file that is named after them
// ------------------------------------------------

int RunOpen(const Options& options, COutput& output);  // OpenCommands.cpp
int RunClose(const Options& options, COutput& output);
int RunCall(const Options& options, COutput& output);

int RunVersion(const Options& options, COutput& output);  // BrokerCommands.cpp
int RunExecute(const Options& options, COutput& output);
int RunLauncher(const Options& options, COutput& output);

int RunStatus(const Options& options, COutput& output);  // AdminCommands.cpp
int RunList(const Options& options, COutput& output);
int RunShow(const Options& options, COutput& output);
int RunWhere(const Options& options, COutput& output);
int RunDebugLevel(const Options& options, COutput& output);
int RunPing(const Options& options, COutput& output);
int RunSweep(const Options& options, COutput& output);
int RunCloseAll(const Options& options, COutput& output);

int RunBlame(const Options& options, COutput& output);   // BlameCommand.cpp
int RunWatch(const Options& options, COutput& output);   // Watch.cpp
int RunDoctor(const Options& options, COutput& output);  // Doctor.cpp

}  // namespace vok::ctl
