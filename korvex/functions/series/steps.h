// SPDX-License-Identifier: Apache-2.0
// The steps that all series share: operand, powers, scalars, the running sum and its result.
//
// What a series tracks is the rounding of each addition into `result`, gathered in `error` by plain
// additions. Every other rounding is dropped, and result + error is one float64 in the end.
#pragma once

#include "korvex/runtime/runtime.h"

namespace korvex {

// A limb result is collapsed first; only then is the device tested.
Object series_operand(const Object& x);

// The value element of _two_product(a, b); its error element is never read.
Object product_value(const Object& a, const Object& b);

// torch.tensor(value(), dtype=torch.float64, device=source.device), the value formed after
// torch.tensor is looked up.
template <typename MakeValue>
Object float64_scalar(const MakeValue& make_value, const Object& source) {
  const Object tensor = torch_member("tensor"_name);
  const Object value = make_value();
  return make_float64(tensor, source, value);
}

// torch.name(x), for zeros_like and ones_like.
Object like(Handle name, const Object& x);

// torch.where(condition(), value(), other): the function is looked up before its arguments.
template <typename Condition, typename Value>
Object where(const Condition& condition, const Value& value, const Object& other) {
  const Object select = torch_member("where"_name);
  const Object chosen = condition();
  const Object if_true = value();
  return select.call(chosen, if_true, other);
}

struct RunningSum {
  Object result;
  Object error;

  // (result, e) = _two_sum(result, term); error = error + e
  void add_term(const Object& term);

  Object final_value() const { return add(result, error); }
};

// Calls step(n) for n in range(first, n_terms), with a look at pending signals in between, so that
// Ctrl-C ends a long series.
template <typename Step>
void for_terms(long long first, const Object& n_terms, const Step& step) {
  int overflow = 0;
  const long long stop = PyLong_AsLongLongAndOverflow(n_terms, &overflow);
  for (long long n = first; overflow >= 0 && (overflow > 0 || n < stop); ++n) {
    checked(PyErr_CheckSignals());
    step(n);
  }
}

constexpr Parameter term_count(int default_terms) {
  return {"n_terms", Kind::kInt, "int", Default::integer(default_terms)};
}

}  // namespace korvex
