// runwardctl's commands:
//
//   runwardctl load [-S SESSION] [-D DOMAIN] PATH
//   runwardctl unload [-S SESSION] [-D DOMAIN] PATH
//   runwardctl list [-x LABEL]
//
// They reach the user's runwardd on its control socket and start it when
// none answers.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace runward {

// Runs one command; returns the exit status. `daemonPath` is the runwardd to
// start when none answers.
int runControlCommand(const std::vector<std::string>& args, const std::string& daemonPath, std::ostream& out,
                      std::ostream& err);

}  // namespace runward
