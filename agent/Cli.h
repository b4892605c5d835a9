// hxagent's command line (CLI11): the commands, their options and --help texts, and the
// dispatch to the jobs. Returns the process exit status (see Errors.h).
#pragma once

namespace hxagent {

int RunCli(int argc, char** argv);

}  // namespace hxagent
