// SPDX-License-Identifier: MIT
//
// Fuzz target: the operators, on any operands, which may be references and may
// be where the result goes. Conversions are left to VariantChangeType, which
// has a target of its own.
//
// Sections: the model; one call and its checks.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>

#include "fuzz/fuzz.h"
#include "fuzz/values.h"
#include "zir.h"

namespace {

using fuzz::Answering;
using fuzz::check;
using fuzz::counted;
using fuzz::Input;

// ---------------------------------------------------------------------------
// The model
// ---------------------------------------------------------------------------

constexpr VARTYPE kReference = VT_BYREF | VT_VARIANT;
constexpr double kTwoTo63 = 9223372036854775808.0;

/// What an operator gives. Nothing but the result counts after a failure.
struct Expected {
  HRESULT result = E_INVALIDARG;
  VARTYPE vt = VT_EMPTY;
  std::int64_t integer = 0;
  std::optional<double> real{};
  std::optional<std::wstring> text{};
  bool any = false;  ///< some number: the promise goes no further
};

Expected integer(std::int64_t value) {
  Expected expected;
  expected.result = S_OK;
  expected.vt = VT_I8;
  expected.integer = value;
  return expected;
}

Expected real(double value) {
  Expected expected;
  expected.result = S_OK;
  expected.vt = VT_R8;
  expected.real = value;
  return expected;
}

Expected truth(unsigned bits) {
  Expected expected;
  expected.result = S_OK;
  expected.vt = VT_BOOL;
  expected.integer = static_cast<std::int16_t>(bits & 0xFFFF);
  return expected;
}

Expected failure(HRESULT result) {
  Expected expected;
  expected.result = result;
  return expected;
}

/// An operand on its way through the conversions. One that fails leaves
/// nothing.
struct Operand {
  explicit Operand(const VARIANT* given) : value(given) {}

  void convert(VARTYPE type) {
    if (value->vt == type) return;
    _variant_t next;
    VariantChangeType(&next, value, 0, type);
    converted = std::move(next);
    value = &converted;
  }
  bool is(VARTYPE type) const { return value->vt == type; }

  const VARIANT* value;
  _variant_t converted{};
};

enum class Operator : std::uint8_t {
  add,
  sub,
  mul,
  div,
  mod,
  pow,
  cat,
  cmp,
  logical_and,
  logical_or,
  logical_xor,
  logical_not,
  round,
  integral,
  fix,
  absolute,
};
constexpr unsigned kOperators = 16;

Expected calculated(Operator which, std::int64_t left, std::int64_t right) {
  std::int64_t result = 0;
  if (which == Operator::add) {
    static_cast<void>(__builtin_add_overflow(left, right, &result));
  } else if (which == Operator::sub) {
    static_cast<void>(__builtin_sub_overflow(left, right, &result));
  } else if (which == Operator::mul) {
    static_cast<void>(__builtin_mul_overflow(left, right, &result));
  } else {
    if (right == 0) return failure(DISP_E_DIVBYZERO);
    return real(static_cast<double>(left) / static_cast<double>(right));
  }
  return integer(result);
}

Expected calculated(Operator which, double left, double right) {
  if (which == Operator::add) return real(left + right);
  if (which == Operator::sub) return real(left - right);
  if (which == Operator::mul) return real(left * right);
  if (right == 0) return failure(DISP_E_DIVBYZERO);
  return real(left / right);
}

Expected concatenated(const VARIANT* l, const VARIANT* r) {
  Expected expected;
  if (l->vt == VT_NULL && r->vt == VT_NULL) {
    expected.result = S_OK;
    expected.vt = VT_NULL;
    return expected;
  }
  Operand left(l);
  Operand right(r);
  if (left.is(VT_NULL) || right.is(VT_NULL)) {
    _variant_t text;
    expected.result =
        VariantChangeType(&text, left.is(VT_NULL) ? r : l, 0, VT_BSTR);
    expected.vt = VT_BSTR;
    if (SUCCEEDED(expected.result)) expected.text = counted(text.bstrVal);
    return expected;
  }
  left.convert(VT_BSTR);
  right.convert(VT_BSTR);
  if (!left.is(VT_BSTR) || !right.is(VT_BSTR)) return expected;
  expected.result = S_OK;
  expected.vt = VT_BSTR;
  expected.text = counted(left.value->bstrVal) + counted(right.value->bstrVal);
  return expected;
}

Expected arithmetic(Operator which, const VARIANT* l, const VARIANT* r) {
  Operand left(l);
  Operand right(r);
  if (which == Operator::mul) {
    if (left.is(VT_BOOL)) left.convert(VT_I8);
    if (right.is(VT_BOOL)) right.convert(VT_I8);
  }
  if (which == Operator::add && right.is(VT_I8)) left.convert(VT_I8);
  if (right.is(VT_R8)) left.convert(VT_R8);
  if (left.is(VT_R8)) {
    right.convert(VT_R8);
    if (!right.is(VT_R8)) return {};
    return calculated(which, left.value->dblVal, right.value->dblVal);
  }
  if (left.is(VT_I8)) {
    if (which == Operator::add) right.convert(VT_I8);
    if (!right.is(VT_I8)) return {};
    return calculated(which, left.value->llVal, right.value->llVal);
  }
  if (which == Operator::add && left.is(VT_BSTR) && right.is(VT_BSTR)) {
    return concatenated(left.value, right.value);
  }
  return {};
}

std::int64_t truncated(double value) {
  return value >= -kTwoTo63 && value < kTwoTo63
             ? static_cast<std::int64_t>(value)
             : INT64_MIN;
}

Expected power(const VARIANT* left, const VARIANT* right) {
  const bool integers = left->vt == VT_I8 && right->vt == VT_I8;
  const auto number = [](const VARIANT* value) -> std::optional<double> {
    if (value->vt == VT_I8) return static_cast<double>(value->llVal);
    if (value->vt == VT_R8) return value->dblVal;
    return std::nullopt;
  };
  const auto base = number(left);
  const auto exponent = number(right);
  if (!base || !exponent) return {};
  const double result = std::pow(*base, *exponent);
  return integers ? integer(truncated(result)) : real(result);
}

template <class Number>
HRESULT order(Number left, Number right) {
  if (right > left) return VARCMP_LT;
  return left > right ? VARCMP_GT : VARCMP_EQ;
}

HRESULT order_of_texts(const std::wstring& left, const std::wstring& right) {
  std::size_t i = 0;
  while (i < left.size() && i < right.size() && left[i] == right[i]) ++i;
  return order(i < left.size() ? left[i] : L'\0',
               i < right.size() ? right[i] : L'\0');
}

Expected compared(const VARIANT* l, const VARIANT* r) {
  Operand left(l);
  Operand right(r);
  if (left.is(VT_BSTR) != right.is(VT_BSTR)) {
    left.convert(VT_BSTR);
    right.convert(VT_BSTR);
  } else if (left.is(VT_R8) != right.is(VT_R8)) {
    left.convert(VT_R8);
    right.convert(VT_R8);
  } else if (left.is(VT_I8) != right.is(VT_I8)) {
    left.convert(VT_I8);
    right.convert(VT_I8);
  }
  if (left.value->vt != right.value->vt) return {};
  switch (left.value->vt) {
    case VT_BSTR:
      return failure(
          order_of_texts(fuzz::until_zero(counted(left.value->bstrVal)),
                         fuzz::until_zero(counted(right.value->bstrVal))));
    case VT_R8:
      return failure(order(left.value->dblVal, right.value->dblVal));
    case VT_I8:
    case VT_I4:
      return failure(order(left.value->llVal, right.value->llVal));
    case VT_BOOL:
      return failure(order(left.value->boolVal, right.value->boolVal));
    default:
      return {};
  }
}

Expected logical(Operator which, const VARIANT* left, const VARIANT* right) {
  if (left->vt != VT_BOOL || right->vt != VT_BOOL) return {};
  unsigned bits = 0;
  for (unsigned bit = 1; bit < 0x10000; bit *= 2) {
    const int set = ((left->uiVal & bit) != 0 ? 1 : 0) +
                    ((right->uiVal & bit) != 0 ? 1 : 0);
    const bool result = which == Operator::logical_and  ? set == 2
                        : which == Operator::logical_or ? set != 0
                                                        : set == 1;
    if (result) bits |= bit;
  }
  return truth(bits);
}

Expected rounded(double value, int decimals) {
  // So many steps take every number to where further ones change nothing.
  const int steps = std::min(decimals, 2000);
  for (int i = 0; i < steps; ++i) value *= 10;
  const double lowered = value - 0.5;
  if (!(lowered > -kTwoTo63 && lowered < 2 * kTwoTo63)) {
    // There is no such unsigned number.
    Expected expected = real(0);
    expected.any = true;
    return expected;
  }
  std::uint64_t whole = 0;
  if (lowered >= 0) {
    whole = static_cast<std::uint64_t>(lowered) + 1;
  } else {
    whole -= static_cast<std::uint64_t>(-lowered);
  }
  auto result = static_cast<double>(whole);
  for (int i = 0; i < steps; ++i) result /= 10;
  return real(result);
}

Expected unary(Operator which, const VARIANT* operand, int decimals) {
  if (operand->vt == VT_I8) {
    const std::int64_t value = operand->llVal;
    const bool negated = which == Operator::absolute && value < 0;
    return integer(negated && value != INT64_MIN ? -value : value);
  }
  if (operand->vt != VT_R8) return {};
  const double value = operand->dblVal;
  switch (which) {
    case Operator::round:
      return rounded(value, decimals);
    case Operator::integral:
      return real(value < 0 ? std::ceil(value) - 1 : std::floor(value));
    case Operator::fix:
      return integer(truncated(value));
    default:
      return real(value < 0 ? 0 - value : value);
  }
}

const VARIANT* dereferenced(const VARIANT* value) {
  return value != nullptr && value->vt == kReference ? value->pvarVal : value;
}

Expected model(Operator which, const VARIANT* l, const VARIANT* r,
               int decimals) {
  const VARIANT* const left = dereferenced(l);
  const VARIANT* const right = dereferenced(r);
  if (which >= Operator::round) {
    return l == nullptr ? Expected() : unary(which, l, decimals);
  }
  if (which == Operator::logical_not) {
    return left == nullptr || left->vt != VT_BOOL
               ? Expected()
               : truth(~left->uiVal & 0xFFFFU);
  }
  if (left == nullptr || right == nullptr) return {};
  switch (which) {
    case Operator::add:
    case Operator::sub:
    case Operator::mul:
    case Operator::div:
      return arithmetic(which, left, right);
    case Operator::mod:
      if (left->vt != VT_I8 || right->vt != VT_I8) return {};
      if (right->llVal == 0) return failure(DISP_E_DIVBYZERO);
      return integer(right->llVal == -1 ? 0 : left->llVal % right->llVal);
    case Operator::pow:
      return power(left, right);
    case Operator::cat:
      return concatenated(left, right);
    case Operator::cmp:
      return compared(left, right);
    default:
      return logical(which, left, right);
  }
}

// ---------------------------------------------------------------------------
// One call and its checks
// ---------------------------------------------------------------------------

HRESULT call(Operator which, VARIANT* left, VARIANT* right, int decimals,
             VARIANT* result) {
  switch (which) {
    case Operator::add:
      return VarAdd(left, right, result);
    case Operator::sub:
      return VarSub(left, right, result);
    case Operator::mul:
      return VarMul(left, right, result);
    case Operator::div:
      return VarDiv(left, right, result);
    case Operator::mod:
      return VarMod(left, right, result);
    case Operator::pow:
      return VarPow(left, right, result);
    case Operator::cat:
      return VarCat(left, right, result);
    case Operator::cmp:
      return VarCmp(left, right, 1031, 0xFFFF);
    case Operator::logical_and:
      return VarAnd(left, right, result);
    case Operator::logical_or:
      return VarOr(left, right, result);
    case Operator::logical_xor:
      return VarXor(left, right, result);
    case Operator::logical_not:
      return VarNot(left, result);
    case Operator::round:
      return VarRound(left, decimals, result);
    case Operator::integral:
      return VarInt(left, result);
    case Operator::fix:
      return VarFix(left, result);
    case Operator::absolute:
      return VarAbs(left, result);
  }
  return E_NOTIMPL;
}

bool same_bytes(const VARIANT& left, const VARIANT& right) {
  return std::memcmp(&left, &right, sizeof left) == 0;
}

void check_result(const VARIANT& result, const Expected& expected) {
  check(result.vt == expected.vt, "the type of the result");
  if (expected.real) {
    check(expected.any || result.dblVal == *expected.real ||
              (std::isnan(result.dblVal) && std::isnan(*expected.real)),
          "a double");
    check(expected.any || std::isnan(*expected.real) ||
              std::signbit(result.dblVal) == std::signbit(*expected.real),
          "the sign of a double");
  } else if (expected.text) {
    check(counted(result.bstrVal) == *expected.text, "a text");
    check(result.bstrVal == nullptr ||
              result.bstrVal[expected.text->size()] == L'\0',
          "a terminator");
  } else if (expected.vt == VT_I8) {
    check(result.llVal == expected.integer, "an integer");
  } else if (expected.vt == VT_BOOL) {
    check(result.boolVal == expected.integer, "a truth value");
  }
}

/// Mostly what the operators take, and everything else.
void fill_operand(Input& input, VARIANT* value, IDispatch* object) {
  const std::uint8_t choice = input.byte();
  switch (choice % 8) {
    case 0:
      value->vt = VT_I8;
      value->llVal = static_cast<std::int8_t>(input.byte());
      break;
    case 1:
      value->vt = VT_I8;
      value->llVal = input.integer<std::int64_t>();
      break;
    case 2:
      value->vt = VT_R8;
      value->dblVal = static_cast<double>(input.integer<std::int16_t>()) / 8;
      break;
    case 3:
      value->vt = VT_R8;
      value->dblVal = input.number();
      break;
    case 4:
      value->vt = VT_BOOL;
      value->boolVal = choice < 0x80
                           ? static_cast<VARIANT_BOOL>(-(choice / 8 % 2))
                           : input.integer<std::int16_t>();
      break;
    case 5:
      value->vt = VT_BSTR;
      value->bstrVal = fuzz::new_string(input);
      break;
    case 6:
      value->vt = VT_NULL;
      break;
    default:
      fuzz::fill(input, value, object, 0);
  }
}

/// One of the operands as it is passed.
struct Passed {
  _variant_t value{};
  VARIANT reference{};
  VARIANT second{};

  VARIANT* get(unsigned shape) {
    reference.vt = kReference;
    reference.pvarVal = shape == 3 ? nullptr : shape == 4 ? &reference : &value;
    second.vt = kReference;
    second.pvarVal = &reference;
    switch (shape) {
      case 1:
      case 3:
      case 4:
        return &reference;
      case 2:
        return &second;
      case 5:
        return nullptr;
      default:
        return &value;
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  Input input(data, size);
  const auto which = static_cast<Operator>(input.byte() % kOperators);
  const std::uint8_t shapes = input.byte();
  const int decimals =
      which == Operator::round ? input.integer<std::int32_t>() : 0;
  Answering object;
  if ((shapes & 0x80) != 0) fill_operand(input, &object.answer, nullptr);
  Passed operands[2];
  fill_operand(input, &operands[0].value, &object);
  fill_operand(input, &operands[1].value, &object);
  // Mostly as they are.
  VARIANT* const left = operands[0].get(shapes % 8);
  VARIANT* const right =
      (shapes & 0x40) != 0 ? left : operands[1].get(shapes / 8 % 8);

  VARIANT separate = {};
  separate.vt = VT_ERROR;
  separate.llVal = 4711;
  VARIANT* result = &separate;
  switch (input.byte() % 8) {
    case 1:
      result = &operands[0].value;
      break;
    case 2:
      result = &operands[1].value;
      break;
    case 3:
      result = nullptr;
      break;
    default:
      break;
  }
  const VARIANT before[] = {operands[0].value, operands[1].value};
  const VARIANT result_before = result != nullptr ? *result : VARIANT{};

  Expected expected = model(which, left, right, decimals);
  const bool needs_result = which != Operator::cmp;
  if (needs_result && result == nullptr) expected = {};
  const HRESULT got = call(which, left, right, decimals, result);
  check(got == expected.result, "the result");
  if (SUCCEEDED(got) && needs_result) {
    check_result(*result, expected);
    VariantClear(result);
  } else if (result != nullptr) {
    check(same_bytes(*result, result_before), "a failure wrote a result");
  }
  // What was overwritten was not cleared.
  if (result != nullptr) *result = result_before;
  for (std::size_t i = 0; i < std::size(operands); ++i) {
    check(same_bytes(operands[i].value, before[i]), "an operand has changed");
  }
  return 0;
}
