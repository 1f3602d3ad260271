// The model of one scenario: the scenario chosen by ScenarioNumber applied to the base model.
#include "reform/transform.h"

namespace kvr {

namespace {

ModelData single_scenario(const kvr_model &model) {
  const ModelData &m = model.data;
  const int count = static_cast<int>(m.scenarios.size());
  if (count == 0)
    fail(KVR_ERROR_DATA_NOT_AVAILABLE,
         "Unable to create a single-scenario model: the model has no scenarios");
  const int k = model.env.params.get_int(ParamId::ScenarioNumber);
  if (k >= count)
    fail(KVR_ERROR_INVALID_ARGUMENT,
         "Unable to create a single-scenario model: ScenarioNumber %d is not below NumScenarios "
         "%d",
         k, count);
  ModelData s = m;
  s.clear_scenarios();
  s.apply_scenario(m.scenarios[k]);
  return s;
}

}  // namespace

}  // namespace kvr

extern "C" {

int KVRsinglescenariomodel(KVRmodel *model, KVRmodel **resultP) {
  return kvr::derive_model(model, resultP, false,
                           [](const kvr_model &m) { return kvr::single_scenario(m); });
}

}  // extern "C"
