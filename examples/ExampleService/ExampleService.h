// The reference service: what a cluster service does between its command
// line and its end, so that the library's service control is exercised
// against a real process.
//
// It records itself in the PID file under its service kind ("Kind" the kind,
// "Name" its -name or else its bundle name, "Version" its bundle version),
// logs through CQuillLogger for its service and instance (to its log file
// with -v, else to standard error), follows preference changes (the logger
// re-reads its level; a change that names this service is logged), announces
// itself with a status notification "CorvaneServiceStartupNotification2" from
// its kind (user information: "instance", and "id" when given), and ends
// on SIGTERM or SIGINT, removing its record.
#pragma once

#include <string>

#include "ServiceArguments.h"

namespace example {

struct ServiceIdentity {
    std::string kind;     // "CorvaneServiceKind" of the bundle
    std::string name;     // the bundle's name
    std::string version;  // the bundle's version, "1" when it has none
};

// Runs the service until a stop signal; returns the exit status. The stop
// signals must be blocked already (blockStopSignals) and the standard
// streams set up. Failures are reported on standard error.
int runService(const ServiceArguments& args, const ServiceIdentity& identity);

}  // namespace example
