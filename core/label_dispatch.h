// LabelDispatch: hands out the labels of the queues that ThreadedObjects
// create, "com.threading.dispatchqueue_0", "..._1", ... in creation order.
// Labels only name queues in diagnostics; nothing relies on them.
//
// Thread-safe (the counter is atomic).
#pragma once

#include <string>

namespace appex {

class LabelDispatch {
 public:
  // Returns the next label and advances the process-wide counter. Stops the
  // process if the counter would overflow.
  static std::string nextLabel();
};

}  // namespace appex
