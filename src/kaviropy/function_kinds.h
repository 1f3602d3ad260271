// The function constraints y = f(x): one row per kind drives both Model.addGenConstr<Suffix>
// and Model.getGenConstr<Suffix>, so a kind's methods, arguments and help texts stay together.
#pragma once

#include <cctype>
#include <string>
#include <string_view>

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
  const char *formula;  // f(x), in x and a, as the help texts show it
};

// One row a kind; the help texts come from the formula.
inline constexpr FunctionKind kFunctionKinds[] = {
    {"Exp", KVRaddgenconstrExp, KVRgetgenconstrExp, nullptr, nullptr, "exp(x)"},
    {"ExpA", nullptr, nullptr, KVRaddgenconstrExpA, KVRgetgenconstrExpA, "a^x"},
    {"Log", KVRaddgenconstrLog, KVRgetgenconstrLog, nullptr, nullptr, "ln(x)"},
    {"LogA", nullptr, nullptr, KVRaddgenconstrLogA, KVRgetgenconstrLogA, "log_a(x)"},
    {"Pow", nullptr, nullptr, KVRaddgenconstrPow, KVRgetgenconstrPow, "x^a"},
    {"Logistic", KVRaddgenconstrLogistic, KVRgetgenconstrLogistic, nullptr, nullptr,
     "1 / (1 + exp(-x))"},
    {"Sin", KVRaddgenconstrSin, KVRgetgenconstrSin, nullptr, nullptr, "sin(x)"},
    {"Cos", KVRaddgenconstrCos, KVRgetgenconstrCos, nullptr, nullptr, "cos(x)"},
    {"Tan", KVRaddgenconstrTan, KVRgetgenconstrTan, nullptr, nullptr, "tan(x)"},
};

// Help text of Model.addGenConstr<Suffix>: "Adds yvar = exp(xvar)." (the formula's x, where it
// stands alone, named by the argument).
inline std::string function_add_doc(const FunctionKind &kind) {
  std::string out = "Adds yvar = ";
  const std::string_view f = kind.formula;
  auto word = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; };
  for (size_t k = 0; k < f.size(); ++k) {
    const bool alone =
        f[k] == 'x' && (k == 0 || !word(f[k - 1])) && (k + 1 == f.size() || !word(f[k + 1]));
    out += alone ? std::string_view("xvar") : f.substr(k, 1);
  }
  return out + ".";
}

// Help text of Model.getGenConstr<Suffix>: "(xvar, yvar[, a]) of y = exp(x).".
inline std::string function_get_doc(const FunctionKind &kind) {
  return std::string(kind.get ? "(xvar, yvar)" : "(xvar, yvar, a)") + " of y = " + kind.formula +
         ".";
}

}  // namespace kvrpy
