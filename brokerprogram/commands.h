#ifndef VELMO_BROKERPROGRAM_COMMANDS_H_
#define VELMO_BROKERPROGRAM_COMMANDS_H_

#include <iosfwd>

#include "brokerprogram/commandoptions.h"

namespace velmo {

// Runs a command against the tree of the broker options name; results go to `out`, the
// framework's error text to `err`. Returns the exit status: 0, or 1 after an error.
// "watch" runs until SIGINT or SIGTERM, which the caller must have blocked in every
// thread (it waits for them with sigwait).
int runCommand(const CommandOptions& options, std::ostream& out, std::ostream& err);

}  // namespace velmo

#endif  // VELMO_BROKERPROGRAM_COMMANDS_H_
