#ifndef VELMO_PYTHON_KXSYSTEM_H_
#define VELMO_PYTHON_KXSYSTEM_H_

namespace KX {
namespace python {

// Runs a command line through the platform's command interpreter and waits for it;
// Python knows it as `_KXSystem`. The command is split at white space; more than 20
// words are refused (logged as an error, nothing runs). Otherwise the words, joined
// by single blanks, run through std::system. Returns true unless the command could
// not be started; its exit status is not looked at. A null command runs nothing
// and returns false.
//
// Called from Python with the interpreter lock held; the lock is released while the
// command runs, so other Python threads proceed meanwhile.
bool kxSystem(char const* command);

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_KXSYSTEM_H_
