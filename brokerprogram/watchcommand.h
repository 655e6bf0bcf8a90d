#ifndef VELMO_BROKERPROGRAM_WATCHCOMMAND_H_
#define VELMO_BROKERPROGRAM_WATCHCOMMAND_H_

#include <iosfwd>
#include <string>

#include "brokerprogram/commandoptions.h"

namespace velmo {

// "watch NAME": joins the tree as a child of the broker asked (listening on `ownIp`, the
// address that broker sees this process at), subscribes to NAME in
// "KXMemory" and prints each new value, in order, until SIGINT or SIGTERM (blocked in
// every thread by the caller); then leaves the tree in order. Throws KXError when the
// tree cannot be joined or has no memory module.
int watch(const CommandOptions& options, const std::string& ownIp, std::ostream& out);

}  // namespace velmo

#endif  // VELMO_BROKERPROGRAM_WATCHCOMMAND_H_
