#include "python/kxsystem.h"

#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string>

#include "log/log.h"
#include "python/pygil.h"

namespace KX {
namespace python {
namespace {

// The longest command line, in words, that the behaviours may run.
constexpr int kMaxCommandWords = 20;

}  // namespace

bool kxSystem(char const* command) {
  if (command == nullptr) return false;

  std::istringstream words(command);
  std::string line;
  std::string word;
  int count = 0;
  while (words >> word) {
    if (++count > kMaxCommandWords) {
      tu::log::LogStream(tu::log::error, "", "_KXSystem", 0, "behavior.ivelmo")
          << "Too much parameters in command" << std::endl;
      return false;
    }
    if (!line.empty()) line += ' ';
    line += word;
  }

  int status = 0;
  {
    // What this process printed so far must come out before the command's output.
    std::fflush(stdout);
    ScopedGILRelease release;
    status = std::system(line.c_str());
  }
  return status != -1;
}

}  // namespace python
}  // namespace KX
