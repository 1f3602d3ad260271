// The function constraints y = f(x): one row per kind drives both Model.addGenConstr<Suffix>
// and Model.getGenConstr<Suffix>, so a kind's methods, arguments and help texts stay together.
#pragma once

#include "kaviro_c.h"

namespace kvrpy {

using FunctionAddFn = int (*)(KVRmodel *, const char *, int, int, const char *);
using FunctionAddParamFn = int (*)(KVRmodel *, const char *, int, int, double, const char *);
using FunctionGetFn = int (*)(KVRmodel *, int, int *, int *);
using FunctionGetParamFn = int (*)(KVRmodel *, int, int *, int *, double *);

struct FunctionKind {
  const char *suffix;
  // Kinds with a parameter `a` (a^x, log_a x, x^a) use the *_param entry points, the others the
  // plain ones; the unused pair is null.
  FunctionAddFn add;
  FunctionGetFn get;
  FunctionAddParamFn add_param;
  FunctionGetParamFn get_param;
  const char *add_doc;
  const char *get_doc;
};

inline constexpr FunctionKind kFunctionKinds[] = {
    {"Exp", KVRaddgenconstrExp, KVRgetgenconstrExp, nullptr, nullptr, "Adds yvar = exp(xvar).",
     "(xvar, yvar) of y = exp(x)."},
    {"ExpA", nullptr, nullptr, KVRaddgenconstrExpA, KVRgetgenconstrExpA, "Adds yvar = a^xvar.",
     "(xvar, yvar, a) of y = a^x."},
    {"Log", KVRaddgenconstrLog, KVRgetgenconstrLog, nullptr, nullptr, "Adds yvar = ln(xvar).",
     "(xvar, yvar) of y = ln(x)."},
    {"LogA", nullptr, nullptr, KVRaddgenconstrLogA, KVRgetgenconstrLogA, "Adds yvar = log_a(xvar).",
     "(xvar, yvar, a) of y = log_a(x)."},
    {"Pow", nullptr, nullptr, KVRaddgenconstrPow, KVRgetgenconstrPow, "Adds yvar = xvar^a.",
     "(xvar, yvar, a) of y = x^a."},
    {"Logistic", KVRaddgenconstrLogistic, KVRgetgenconstrLogistic, nullptr, nullptr,
     "Adds yvar = 1 / (1 + exp(-xvar)).", "(xvar, yvar) of y = 1 / (1 + exp(-x))."},
    {"Sin", KVRaddgenconstrSin, KVRgetgenconstrSin, nullptr, nullptr, "Adds yvar = sin(xvar).",
     "(xvar, yvar) of y = sin(x)."},
    {"Cos", KVRaddgenconstrCos, KVRgetgenconstrCos, nullptr, nullptr, "Adds yvar = cos(xvar).",
     "(xvar, yvar) of y = cos(x)."},
    {"Tan", KVRaddgenconstrTan, KVRgetgenconstrTan, nullptr, nullptr, "Adds yvar = tan(xvar).",
     "(xvar, yvar) of y = tan(x)."},
};

}  // namespace kvrpy
