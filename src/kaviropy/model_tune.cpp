// Model methods of the tuner: tune and getTuneResult.
#include "model.h"
#include "model_optimize.h"

namespace kvrpy {

void init_model_tune(nb::module_ &) {
  ModelMethods def;
  def(
      "tune",
      [](nb::handle self) {
        KVRmodel *cm = library_model(self);
        self.attr("update")();
        KVRsetsignal(cm);
        int code;
        {
          nb::gil_scoped_release release;
          code = KVRtunemodel(cm);
        }
        check(code, self);
      },
      "Searches for parameter settings that solve the model faster (TuneCriterion, "
      "TuneTimeLimit, TuneTrials and the other Tune parameters control the search); the model's "
      "own parameters and solution stay as they are. TuneResultCount gives the number of "
      "improved sets found; getTuneResult applies one.");
  def(
      "getTuneResult",
      [](nb::handle self, int i) { check(KVRgettuneresult(library_model(self), i), self); },
      nb::arg("i"),
      "Sets the model's parameters to tuning result i (0 is the best): the parameters in force "
      "when tuning started, with that result's changes.");
}

}  // namespace kvrpy
