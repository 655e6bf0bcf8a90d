#include "behavior/kxtimeline.h"

namespace KX {

// Out of line so that the interface's type information lives in this library only.
KXTimeline::~KXTimeline() = default;

}  // namespace KX
