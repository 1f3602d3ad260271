// The callback family's state object (CallbackClass) as seen by the Model methods that work
// inside callbacks.
#pragma once

#include "module.h"

namespace kvrpy {

// One optimization's callback: the user's function and the data of the current invocation.
struct CallbackState {
  nb::object func;
  int n = 0;               // variables of the model when the optimization started
  void *cbdata = nullptr;  // library data of the current invocation
  int where = -1;
  nb::object sol = nb::none(), noderel = nb::none(), setsol = nb::none();

  // Starts an invocation: forgets the cached values of the previous one.
  void begin(void *data, int where);
  // Hands the values given with cbSetSolution to the library; the solution's objective, or None.
  nb::object solnow();
};

// The CallbackClass instance held in Model._callback.
CallbackState &callback_state(nb::handle obj);
// The library callback that routes events to Model._callback (registered by optimize).
KVRcallback callback_function();

}  // namespace kvrpy
