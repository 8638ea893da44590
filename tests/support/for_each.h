// SPDX-License-Identifier: MIT
//
// For tests of forEach: a callback that notes the rows it is called for, and
// the late-bound call.

#ifndef ZIRDB_TESTS_SUPPORT_FOR_EACH_H
#define ZIRDB_TESTS_SUPPORT_FOR_EACH_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "support/objects.h"
#include "support/recordsets.h"

namespace recordsets {

using Seen = objects::Dispatch::Call;
using Rows = std::vector<std::int64_t>;

constexpr DISPID kForEach = 11;

/// The number in the row that the callback's argument reads, late-bound as a
/// script would.
inline std::int64_t row_of(const Seen& call) {
  if (call.parameters == nullptr || call.parameters->cArgs != 1 ||
      call.parameters->rgvarg[0].vt != VT_DISPATCH) {
    ADD_FAILURE() << "one object is expected";
    return -1;
  }
  const Answer field =
      component::method(call.parameters->rgvarg[0].pdispVal, 0, {L"number"});
  EXPECT_EQ(field.value.vt, VT_DISPATCH);
  if (field.value.vt != VT_DISPATCH) return -1;
  return component::get(field.value.pdispVal, 0).value.llVal;
}

/// A callback that notes the row and then does as told with it.
class Visitor {
 public:
  explicit Visitor(std::function<HRESULT(std::int64_t, const Seen&)> then = {})
      : then_(std::move(then)), callback_([this](const Seen& call) {
          rows_.push_back(row_of(call));
          return then_ ? then_(rows_.back(), call) : S_OK;
        }) {}

  Visitor(const Visitor&) = delete;
  Visitor& operator=(const Visitor&) = delete;
  ~Visitor() = default;

  _variant_t argument() {
    return _variant_t(static_cast<IDispatch*>(&callback_));
  }
  const Rows& rows() const { return rows_; }
  const objects::Dispatch& callback() const { return callback_; }

 private:
  std::function<HRESULT(std::int64_t, const Seen&)> then_;
  Rows rows_;
  objects::Dispatch callback_;
};

inline Answer for_each(const Recordset& recordset, const _variant_t& callback) {
  return component::method(component::dispatch_of(recordset.get()).get(),
                           kForEach, {callback});
}

inline Answer for_each(const Recordset& recordset, Visitor& visitor) {
  Answer answer = for_each(recordset, visitor.argument());
  EXPECT_EQ(visitor.callback().references(), 1U) << "the test's own";
  return answer;
}

/// The call returned this, and neither a value nor an error came with it.
inline void expect_only(const Answer& answer, HRESULT result) {
  component::expect_refused(answer, result);
}

}  // namespace recordsets

#endif  // ZIRDB_TESTS_SUPPORT_FOR_EACH_H
