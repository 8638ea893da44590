// SPDX-License-Identifier: MIT
//
// The operators on VARIANTs: every operator over every pair of types against a
// model of the rules, then the values of each operator.
//
// Sections: samples; a model of the rules; every pair; arithmetic; powers and
// remainders; logic; rounding; texts; comparison; where operands and results
// are.
//
// The model knows of each sample what it converts to, as data, and nothing of
// how conversions are made. What a sweep's calls print is captured once.

#include <gtest/gtest.h>

#include <array>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/objects.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"

namespace {

using namespace values;

// ---------------------------------------------------------------------------
// Samples
// ---------------------------------------------------------------------------

double double_of(std::uint64_t bits) {
  double value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

/// A result that holds what nobody may free.
VARIANT garbage() {
  VARIANT value{};
  std::memset(&value, 0xA5, sizeof value);
  value.vt = VT_BSTR;
  return value;
}

_variant_t bytes_value(VARTYPE type) {
  VARIANT value{};
  value.vt = type;
  value.parray = SafeArrayCreateVector(VT_UI1, 0, 1);
  std::memset(value.parray->pvData, 'x', 1);
  return owned(value);
}

/// What a conversion gives: a value, a refusal with a stub line, or a failure
/// without one.
template <class T>
struct Form {
  enum class Kind { kUnsupported, kFailure, kValue };

  Form() = default;
  Form(T converted)  // NOLINT(google-explicit-constructor): rows read as data
      : kind(Kind::kValue), value(std::move(converted)) {}
  static Form failure() {
    Form form;
    form.kind = Kind::kFailure;
    return form;
  }

  Kind kind = Kind::kUnsupported;
  T value{};
};

/// A value and what VariantChangeType makes of it.
struct Sample {
  VARTYPE type;
  std::uint64_t bits;  // unless `make` is there
  std::function<_variant_t()> make;
  Form<std::int64_t> integer;
  Form<double> number;
  Form<std::wstring> text;
};

/// The objects that samples refer to: one whose default member is 5, one whose
/// default member fails.
struct Objects {
  objects::Unknown unknown;
  objects::Dispatch five{[](const objects::Dispatch::Call& call) {
    *call.result = plain(VT_I8, 5);
    return S_OK;
  }};
  objects::Dispatch failing{
      [](const objects::Dispatch::Call&) { return DISP_E_MEMBERNOTFOUND; }};
};

constexpr std::uint64_t kOther = 0x5A6B7C8D9EAFB0C1;

std::vector<Sample> make_samples(Objects& objects) {
  using Integer = Form<std::int64_t>;
  using Number = Form<double>;
  using Text = Form<std::wstring>;
  const auto bstr = [](const wchar_t* text) {
    return [text] { return _variant_t(text); };
  };
  const auto object = [](objects::Dispatch& dispatch) {
    return [&dispatch] { return _variant_t(&dispatch); };
  };
  std::vector<Sample> samples = {
      {VT_EMPTY, kOther, {}, 0, 0.0, std::wstring()},
      {VT_NULL, kOther, {}, {}, {}, std::wstring()},
      {VT_I2, 0xA5A5A5A5A5A58001, {}, {}, {}, std::wstring(L"-32767")},
      {VT_I4, 70000, {}, 70000, {}, std::wstring(L"70000")},
      {VT_I4, 0x700000007, {}, 0x700000007, {}, std::wstring(L"30064771079")},
      {VT_R8, bits_of(2.5), {}, 2, 2.5, std::wstring(L"2.5")},
      {VT_R8, bits_of(-0.75), {}, 0, -0.75, std::wstring(L"-0.75")},
      {VT_R8, bits_of(0.0), {}, 0, 0.0, std::wstring(L"0")},
      {VT_R8, bits_of(-0.0), {}, 0, -0.0, std::wstring(L"-0")},
      {VT_R8, bits_of(1e300), {}, kSmallest, 1e300, std::wstring(L"1e+300")},
      {VT_R8, bits_of(kNaN), {}, kSmallest, kNaN, std::wstring(L"nan")},
      {VT_DATE,
       bits_of(45292.75),
       {},
       {},
       {},
       std::wstring(L"2024/01/01 18:00:00")},
      {VT_BSTR, 0, bstr(L"12"), 12, 12.0, std::wstring(L"12")},
      {VT_BSTR, 0, bstr(L"0"), 0, 0.0, std::wstring(L"0")},
      {VT_BSTR, 0, bstr(L"-2.5x"), -2, -2.5, std::wstring(L"-2.5x")},
      {VT_BSTR, 0, bstr(L"abc"), Integer::failure(), Number::failure(),
       std::wstring(L"abc")},
      {VT_BSTR, 0, bstr(L""), Integer::failure(), Number::failure(),
       std::wstring()},
      {VT_DISPATCH, 0, object(objects.five), {}, {}, std::wstring(L"5")},
      {VT_DISPATCH, 0, object(objects.failing), {}, {}, Text::failure()},
      {VT_BOOL, 0xA5A5A5A5A5A5FFFF, {}, -1, -1.0, std::wstring(L"-1")},
      {VT_BOOL, 0xA5A5A5A5A5A50000, {}, 0, 0.0, std::wstring(L"0")},
      {VT_BOOL, 0x0006, {}, 6, 6.0, std::wstring(L"6")},
      {VT_UI1, 0xA5A5A5A5A5A5A5C8, {}, 200, {}, std::wstring(L"200")},
      {VT_I8, 7, {}, 7, 7.0, std::wstring(L"7")},
      {VT_I8, 0, {}, 0, 0.0, std::wstring(L"0")},
      {VT_I8,
       static_cast<std::uint64_t>(-1),
       {},
       -1,
       -1.0,
       std::wstring(L"-1")},
      {VT_I8,
       static_cast<std::uint64_t>(kSmallest),
       {},
       kSmallest,
       -9223372036854775808.0,
       std::wstring(L"-9223372036854775808")},
      {VT_UI8,
       18446744073709551615U,
       {},
       {},
       {},
       std::wstring(L"18446744073709551615")},
      {VT_LPSTR,
       0,
       [] { return lpstr_value("abc"); },
       {},
       {},
       std::wstring(L"abc\000", 4)},
      {VT_UNKNOWN,
       0,
       [&objects] {
         return _variant_t(static_cast<IUnknown*>(&objects.unknown));
       },
       {},
       {},
       {}},
      {VT_ARRAY | VT_UI1,
       0,
       [] { return bytes_value(VT_ARRAY | VT_UI1); },
       {},
       {},
       {}},
      {VT_ARRAY | VT_I8,
       0,
       [] { return bytes_value(VT_ARRAY | VT_I8); },
       {},
       {},
       {}},
      {VT_BYREF | VT_ARRAY | VT_UI1,
       0,
       [] { return bytes_value(VT_BYREF | VT_ARRAY | VT_UI1); },
       {},
       {},
       {}},
  };
  for (const int type :
       {4,          6,           10,          12,          14,
        15,         16,          18,          19,          22,
        26,         31,          0x0FFF,      0x4000 | 3,  0x4000 | 5,
        0x4000 | 8, 0x4000 | 11, 0x4000 | 20, 0x8000 | 20, 0x1000 | 8,
        0xDFFF}) {
    samples.push_back({static_cast<VARTYPE>(type), kOther, {}, {}, {}, {}});
  }
  return samples;
}

// ---------------------------------------------------------------------------
// A model of the rules
// ---------------------------------------------------------------------------

/// A value as the model sees it: enough to convert it once more.
struct Value {
  VARTYPE type = VT_EMPTY;
  std::uint64_t bits = 0;
  std::wstring text;  // of VT_BSTR
  Form<std::int64_t> integer{0};
  Form<double> number{0.0};
  Form<std::wstring> as_text{std::wstring()};

  std::int64_t whole() const { return static_cast<std::int64_t>(bits); }
  double fraction() const { return double_of(bits); }
  std::int16_t truth() const { return static_cast<std::int16_t>(bits); }
};

Value integer_value(std::int64_t value) {
  return {VT_I8, static_cast<std::uint64_t>(value), {},
          value, static_cast<double>(value),        {}};
}

Value number_value(double value) {
  return {VT_R8, bits_of(value), {}, {}, value, {}};
}

Value text_form(std::wstring text) {
  return {VT_BSTR, 0, std::move(text), {}, {}, {}};
}

Value truth_value(int value) {
  return {VT_BOOL, static_cast<std::uint64_t>(value & 0xFFFF), {}, {}, {}, {}};
}

Value value_of(const Sample& sample) {
  Value value{sample.type,    sample.bits,   {},
              sample.integer, sample.number, sample.text};
  if (sample.type == VT_BSTR) value.text = sample.text.value;
  return value;
}

/// What one call does.
struct Effect {
  HRESULT result = S_OK;
  std::optional<Value> value;  // what is written, if anything is
  std::string printed;
};

std::wstring up_to_zero(const std::wstring& text) {
  return text.substr(0, text.find(L'\0'));
}

/// Works out the effects of the operators.
class Model {
 public:
  explicit Model(const char* name) : name_(name) {}

  Effect arithmetic(const Value& left_operand, const Value& right_operand) {
    Value left = left_operand;
    Value right = right_operand;
    const bool add = is("VarAdd");
    if (is("VarMul")) {
      if (left.type == VT_BOOL) left = to_integer(left);
      if (right.type == VT_BOOL) right = to_integer(right);
    }
    if (add && right.type == VT_I8 && left.type != VT_I8) {
      left = to_integer(left);
    }
    if (right.type == VT_R8 && left.type != VT_R8) left = to_number(left);
    if (left.type == VT_R8) {
      if (right.type != VT_R8) right = to_number(right);
      if (right.type == VT_R8) return on_numbers(left, right);
    } else if (left.type == VT_I8) {
      if (add && right.type != VT_I8) right = to_integer(right);
      if (right.type == VT_I8) return on_integers(left, right);
    } else if (add && left.type == VT_BSTR && right.type == VT_BSTR) {
      return done(text_form(left.text + right.text));
    }
    return unsupported(left, right);
  }

  Effect remainder(const Value& left, const Value& right) {
    if (left.type != VT_I8 || right.type != VT_I8) {
      return unsupported(left, right);
    }
    if (right.whole() == 0) return {DISP_E_DIVBYZERO, {}, printed_};
    if (right.whole() == -1) return done(integer_value(0));
    return done(integer_value(left.whole() % right.whole()));
  }

  Effect power(const Value& left, const Value& right) {
    const auto counts = [](const Value& value) {
      return value.type == VT_I8 || value.type == VT_R8;
    };
    if (!counts(left) || !counts(right)) return unsupported(left, right);
    const double power = std::pow(left.number.value, right.number.value);
    if (left.type == VT_R8 || right.type == VT_R8) {
      return done(number_value(power));
    }
    const bool fits = power >= -0x1p63 && power < 0x1p63;
    return done(
        integer_value(fits ? static_cast<std::int64_t>(power) : kSmallest));
  }

  Effect concatenation(const Value& left_operand, const Value& right_operand) {
    Value left = left_operand;
    Value right = right_operand;
    if (left.type == VT_NULL && right.type == VT_NULL) {
      return done({VT_NULL, 0, {}, {}, {}, {}});
    }
    if (left.type == VT_NULL || right.type == VT_NULL) {
      const Value& other = left.type == VT_NULL ? right : left;
      const Value text = to_text(other);
      if (text.type == VT_BSTR) return done(text);
      const bool failed =
          other.as_text.kind == Form<std::wstring>::Kind::kFailure;
      return {failed ? DISP_E_MEMBERNOTFOUND : E_INVALIDARG, {}, printed_};
    }
    if (left.type != VT_BSTR) left = to_text(left);
    if (right.type != VT_BSTR) right = to_text(right);
    if (left.type != VT_BSTR || right.type != VT_BSTR) {
      return unsupported(left, right);
    }
    return done(text_form(left.text + right.text));
  }

  Effect comparison(const Value& left_operand, const Value& right_operand) {
    Value left = left_operand;
    Value right = right_operand;
    const auto either = [&](VARTYPE type) {
      return left.type == type || right.type == type;
    };
    if (either(VT_BSTR)) {
      if (left.type != VT_BSTR) left = to_text(left);
      if (right.type != VT_BSTR) right = to_text(right);
    } else if (either(VT_R8)) {
      if (right.type != VT_R8) right = to_number(right);
      if (left.type != VT_R8) left = to_number(left);
    } else if (either(VT_I8)) {
      if (right.type != VT_I8) right = to_integer(right);
      if (left.type != VT_I8) left = to_integer(left);
    }
    if (left.type != right.type) return unsupported(left, right);
    switch (left.type) {
      case VT_BSTR:  // texts end at their first zero
        return compared(up_to_zero(left.text), up_to_zero(right.text));
      case VT_R8:
        return compared(left.fraction(), right.fraction());
      case VT_I8:
      case VT_I4:
        return compared(left.whole(), right.whole());
      case VT_BOOL:
        return compared(left.truth(), right.truth());
      default:
        return unsupported(left, right);
    }
  }

  Effect logic(const Value& left, const Value& right) {
    if (left.type != VT_BOOL || right.type != VT_BOOL) {
      return unsupported(left, right);
    }
    const int l = left.truth();
    const int r = right.truth();
    if (is("VarAnd")) return done(truth_value(l & r));
    if (is("VarOr")) return done(truth_value(l | r));
    return done(truth_value(l ^ r));
  }

  /// For an operator of one operand that takes VT_I8 and VT_R8, or VT_BOOL.
  Effect unary(const Value& operand) {
    if (is("VarNot")) {
      if (operand.type != VT_BOOL) return unsupported(operand);
      return done(truth_value(-1 - operand.truth()));
    }
    if (operand.type == VT_I8) {
      if (!is("VarAbs") || operand.whole() >= 0 ||
          operand.whole() == kSmallest) {
        return done(operand);
      }
      return done(integer_value(-operand.whole()));
    }
    if (operand.type != VT_R8) return unsupported(operand);
    const double x = operand.fraction();
    if (is("VarAbs")) return done(number_value(x < 0 ? -x : x));
    if (is("VarInt")) {
      return done(number_value(x < 0 ? std::trunc(x) - 1 : std::trunc(x)));
    }
    const bool fits = x >= -0x1p63 && x < 0x1p63;
    return done(integer_value(fits ? static_cast<std::int64_t>(x) : kSmallest));
  }

 private:
  bool is(const char* name) const { return name_ == name; }

  /// What stays in the temporary of a conversion that failed.
  template <class T>
  Value failed(const Value& value, const Form<T>& form, int line,
               VARTYPE target) {
    if (form.kind == Form<T>::Kind::kUnsupported) {
      printed_ += printed::stub_line(
          "VariantChangeType", line,
          "vt:" + std::to_string(value.type) + "->" + std::to_string(target));
    }
    return {};
  }
  Value to_integer(const Value& value) {
    using Kind = Form<std::int64_t>::Kind;
    if (value.integer.kind == Kind::kValue) {
      return integer_value(value.integer.value);
    }
    return failed(value, value.integer, 1045, VT_I8);
  }
  Value to_number(const Value& value) {
    using Kind = Form<double>::Kind;
    if (value.number.kind == Kind::kValue) {
      return number_value(value.number.value);
    }
    return failed(value, value.number, 1009, VT_R8);
  }
  Value to_text(const Value& value) {
    using Kind = Form<std::wstring>::Kind;
    if (value.as_text.kind == Kind::kValue) {
      return text_form(value.as_text.value);
    }
    return failed(value, value.as_text, 940, VT_BSTR);
  }

  Effect on_numbers(const Value& left, const Value& right) {
    const double l = left.fraction();
    const double r = right.fraction();
    if (is("VarAdd")) return done(number_value(l + r));
    if (is("VarSub")) return done(number_value(l - r));
    if (is("VarMul")) return done(number_value(l * r));
    if (r == 0) return {DISP_E_DIVBYZERO, {}, printed_};
    return done(number_value(l / r));
  }
  Effect on_integers(const Value& left, const Value& right) {
    if (is("VarAdd")) return wrapped(left.bits + right.bits);
    if (is("VarSub")) return wrapped(left.bits - right.bits);
    if (is("VarMul")) return wrapped(left.bits * right.bits);
    if (right.bits == 0) return {DISP_E_DIVBYZERO, {}, printed_};
    return done(number_value(static_cast<double>(left.whole()) /
                             static_cast<double>(right.whole())));
  }
  Effect wrapped(std::uint64_t bits) {
    return done(integer_value(static_cast<std::int64_t>(bits)));
  }
  template <class T>
  Effect compared(const T& left, const T& right) {
    return {left < right   ? VARCMP_LT
            : right < left ? VARCMP_GT
                           : VARCMP_EQ,
            {},
            printed_};
  }
  Effect done(const Value& value) { return {S_OK, value, printed_}; }

  Effect unsupported(const Value& left, const Value& right) {
    return refuse(std::to_string(left.type) + "->" +
                  std::to_string(right.type));
  }
  Effect unsupported(const Value& operand) {
    return refuse(std::to_string(operand.type));
  }
  Effect refuse(const std::string& types) {
    static const std::vector<std::pair<std::string, int>> lines = {
        {"VarAdd", 728}, {"VarSub", 759},   {"VarMul", 633}, {"VarDiv", 686},
        {"VarMod", 651}, {"VarPow", 594},   {"VarCat", 810}, {"VarCmp", 488},
        {"VarAnd", 391}, {"VarOr", 407},    {"VarXor", 423}, {"VarNot", 375},
        {"VarInt", 532}, {"VarRound", 514}, {"VarFix", 549}, {"VarAbs", 566}};
    int line = 0;
    for (const auto& [name, number] : lines) {
      if (name == name_) line = number;
    }
    return {E_INVALIDARG,
            {},
            printed_ + printed::stub_line(name_, line, "vt:" + types)};
  }

  std::string name_;
  std::string printed_;
};

// ---------------------------------------------------------------------------
// Every pair
// ---------------------------------------------------------------------------

using Binary = HRESULT (*)(VARIANT*, VARIANT*, VARIANT*);
using Unary = HRESULT (*)(VARIANT*, VARIANT*);

struct BinaryOperator {
  const char* name;
  Binary call;
  Effect (Model::*model)(const Value&, const Value&);
};

void PrintTo(const BinaryOperator& op, std::ostream* out) { *out << op.name; }

HRESULT compare(VARIANT* left, VARIANT* right, VARIANT* /*result*/) {
  return VarCmp(left, right, 0xFFFF, 0xFFFF);
}

_variant_t make(const Sample& sample) {
  return sample.make ? sample.make() : owned(plain(sample.type, sample.bits));
}

/// `actual`, of which the caller owns nothing yet, is what `expected` says.
void expect_value(const VARIANT& actual, const Value& expected) {
  ASSERT_EQ(actual.vt, expected.type);
  if (expected.type == VT_BSTR) {
    EXPECT_EQ(text_of(actual), expected.text);
  } else if (expected.type == VT_R8 && std::isnan(expected.fraction())) {
    EXPECT_TRUE(std::isnan(actual.dblVal));
  } else if (expected.type != VT_NULL) {
    EXPECT_EQ(actual.ullVal, expected.bits);
  }
}

/// One call. Operands and result are as the call left them.
struct Trial {
  Trial(const Sample& left, const Sample& right)
      : left_sample(&left),
        right_sample(&right),
        left_value(make(left)),
        right_value(make(right)),
        left_before(left_value),
        right_before(right_value) {}

  const Sample* left_sample;
  const Sample* right_sample;
  _variant_t left_value;
  _variant_t right_value;
  VARIANT left_before;
  VARIANT right_before;
  VARIANT written = garbage();
  HRESULT result = S_OK;
};

void expect_effect(const Trial& trial, const std::string& printed,
                   const Effect& effect) {
  EXPECT_EQ(trial.result, effect.result);
  EXPECT_EQ(printed, effect.printed);
  EXPECT_TRUE(same_bytes(trial.left_value, trial.left_before));
  EXPECT_TRUE(same_bytes(trial.right_value, trial.right_before));
  if (effect.value) {
    expect_value(trial.written, *effect.value);
  } else {
    EXPECT_TRUE(same_bytes(trial.written, garbage()));
  }
}

class EveryPair : public testing::TestWithParam<BinaryOperator> {
 protected:
  /// Runs every pair of samples through `call(trial)`.
  template <class Call>
  void expect_every_pair(Call call) {
    std::vector<Trial> trials;
    for (const Sample& left : samples_) {
      for (const Sample& right : samples_) trials.emplace_back(left, right);
    }
    const auto printed =
        printed_by_each(trials.size(), [&](std::size_t i) { call(trials[i]); });

    for (std::size_t i = 0; i < trials.size() && !HasFailure(); ++i) {
      const Value left = value_of(*trials[i].left_sample);
      const Value right = value_of(*trials[i].right_sample);
      SCOPED_TRACE(std::to_string(left.type) + " (" +
                   std::to_string(left.bits) + ") and " +
                   std::to_string(right.type) + " (" +
                   std::to_string(right.bits) + ")");
      Model model(GetParam().name);
      const Effect effect = (model.*GetParam().model)(left, right);
      expect_effect(trials[i], printed[i], effect);
      if (effect.value && trials[i].written.vt == VT_BSTR) {
        VariantClear(&trials[i].written);
      }
    }
  }

  Objects objects_;
  std::vector<Sample> samples_ = make_samples(objects_);
};

TEST_P(EveryPair, FollowsTheRules) {
  expect_every_pair([](Trial& trial) {
    trial.result =
        GetParam().call(&trial.left_value, &trial.right_value, &trial.written);
  });
  EXPECT_EQ(objects_.five.references(), 1U);
  EXPECT_EQ(objects_.unknown.references(), 1U);
}

TEST_P(EveryPair, FollowsTheRulesThroughReferences) {
  expect_every_pair([](Trial& trial) {
    VARIANT left = reference_to(&trial.left_value);
    VARIANT right = reference_to(&trial.right_value);
    trial.result = GetParam().call(&left, &right, &trial.written);
  });
}

TEST_P(EveryPair, FollowsTheRulesThroughAReferenceOnTheLeft) {
  expect_every_pair([](Trial& trial) {
    VARIANT left = reference_to(&trial.left_value);
    trial.result = GetParam().call(&left, &trial.right_value, &trial.written);
  });
}

TEST_P(EveryPair, FollowsTheRulesThroughAReferenceOnTheRight) {
  expect_every_pair([](Trial& trial) {
    VARIANT right = reference_to(&trial.right_value);
    trial.result = GetParam().call(&trial.left_value, &right, &trial.written);
  });
}

// A conversion follows a reference of its own, so that some operators see
// through two.
TEST_P(EveryPair, FollowsOneReferenceAndEachConversionOneMore) {
  _variant_t seven(std::int64_t{7});
  VARIANT inner = reference_to(&seven);
  VARIANT outer = reference_to(&inner);
  const Value referenced{kReference, 0, {}, 7, 7.0, std::wstring(L"7")};
  const Value plain_seven{VT_I8, 7, {}, 7, 7.0, std::wstring(L"7")};
  VARIANT written = garbage();
  HRESULT result = S_OK;
  const std::string printed =
      printed::by([&] { result = GetParam().call(&outer, &seven, &written); });
  const _variant_t owner =
      same_bytes(written, garbage()) ? _variant_t() : owned(written);
  Model model(GetParam().name);
  const Effect effect = (model.*GetParam().model)(referenced, plain_seven);

  EXPECT_EQ(result, effect.result);
  EXPECT_EQ(printed, effect.printed);
  if (effect.value) {
    expect_value(written, *effect.value);
  } else {
    EXPECT_TRUE(same_bytes(written, garbage()));
  }
}

TEST_P(EveryPair, RefusesNullPointersSilently) {
  _variant_t seven(std::int64_t{7});
  VARIANT nowhere = reference_to(nullptr);
  VARIANT written = garbage();
  std::vector<HRESULT> results;
  const std::string printed = printed::by([&] {
    const Binary call = GetParam().call;
    results = {call(nullptr, &seven, &written), call(&seven, nullptr, &written),
               call(nullptr, nullptr, &written),
               call(&nowhere, &seven, &written),
               call(&seven, &nowhere, &written)};
    if (call != compare) results.push_back(call(&seven, &seven, nullptr));
  });

  for (const HRESULT result : results) EXPECT_EQ(result, E_INVALIDARG);
  EXPECT_EQ(printed, "");
  EXPECT_TRUE(same_bytes(written, garbage()));
}

INSTANTIATE_TEST_SUITE_P(
    OfTypes, EveryPair,
    testing::Values(BinaryOperator{"VarAdd", VarAdd, &Model::arithmetic},
                    BinaryOperator{"VarSub", VarSub, &Model::arithmetic},
                    BinaryOperator{"VarMul", VarMul, &Model::arithmetic},
                    BinaryOperator{"VarDiv", VarDiv, &Model::arithmetic},
                    BinaryOperator{"VarMod", VarMod, &Model::remainder},
                    BinaryOperator{"VarPow", VarPow, &Model::power},
                    BinaryOperator{"VarCat", VarCat, &Model::concatenation},
                    BinaryOperator{"VarCmp", compare, &Model::comparison},
                    BinaryOperator{"VarAnd", VarAnd, &Model::logic},
                    BinaryOperator{"VarOr", VarOr, &Model::logic},
                    BinaryOperator{"VarXor", VarXor, &Model::logic}));

struct UnaryOperator {
  const char* name;
  Unary call;
  bool follows;  // a reference
};

void PrintTo(const UnaryOperator& op, std::ostream* out) { *out << op.name; }

HRESULT round_to_whole(VARIANT* operand, VARIANT* result) {
  return VarRound(operand, 0, result);
}

class EveryOperand : public testing::TestWithParam<UnaryOperator> {
 protected:
  /// Runs every sample through `call(trial)`. What VarRound makes of a VT_R8 is
  /// not the model's matter.
  template <class Call>
  void expect_every_operand(Call call) {
    std::vector<Trial> trials;
    for (const Sample& sample : samples_) trials.emplace_back(sample, sample);
    const auto printed =
        printed_by_each(trials.size(), [&](std::size_t i) { call(trials[i]); });

    for (std::size_t i = 0; i < trials.size(); ++i) {
      const Value operand = value_of(*trials[i].left_sample);
      SCOPED_TRACE(std::to_string(operand.type) + " (" +
                   std::to_string(operand.bits) + ")");
      if (GetParam().name == std::string("VarRound") && operand.type == VT_R8) {
        EXPECT_EQ(trials[i].result, S_OK);
        EXPECT_EQ(trials[i].written.vt, VT_R8);
        EXPECT_EQ(printed[i], "");
        continue;
      }
      expect_effect(trials[i], printed[i],
                    Model(GetParam().name).unary(operand));
    }
  }

  Objects objects_;
  std::vector<Sample> samples_ = make_samples(objects_);
};

TEST_P(EveryOperand, FollowsTheRules) {
  expect_every_operand([](Trial& trial) {
    trial.result = GetParam().call(&trial.left_value, &trial.written);
  });
}

TEST_P(EveryOperand, IsFollowedWhereItMay) {
  if (GetParam().follows) {
    expect_every_operand([](Trial& trial) {
      VARIANT reference = reference_to(&trial.left_value);
      trial.result = GetParam().call(&reference, &trial.written);
    });
  }
  _variant_t value(true);
  VARIANT inner = reference_to(&value);
  VARIANT outer = reference_to(&inner);
  VARIANT written = garbage();
  HRESULT result = S_OK;
  const std::string printed =
      printed::by([&] { result = GetParam().call(&outer, &written); });

  const Value referenced{kReference, 0, {}, {}, {}, {}};
  EXPECT_EQ(result, E_INVALIDARG);
  EXPECT_EQ(printed, Model(GetParam().name).unary(referenced).printed);
  EXPECT_TRUE(same_bytes(written, garbage()));
}

TEST_P(EveryOperand, ThatIsNullIsRefusedSilently) {
  _variant_t seven(std::int64_t{7});
  VARIANT written = garbage();
  HRESULT without_operand = S_OK;
  HRESULT without_result = S_OK;
  const std::string printed = printed::by([&] {
    without_operand = GetParam().call(nullptr, &written);
    without_result = GetParam().call(&seven, nullptr);
  });

  EXPECT_EQ(without_operand, E_INVALIDARG);
  EXPECT_EQ(without_result, E_INVALIDARG);
  EXPECT_EQ(printed, "");
  EXPECT_TRUE(same_bytes(written, garbage()));
}

TEST_P(EveryOperand, ThatRefersToNothingIsRefused) {
  VARIANT nowhere = reference_to(nullptr);
  VARIANT written = garbage();
  HRESULT result = S_OK;
  const std::string printed =
      printed::by([&] { result = GetParam().call(&nowhere, &written); });

  EXPECT_EQ(result, E_INVALIDARG);
  const Value referenced{kReference, 0, {}, {}, {}, {}};
  EXPECT_EQ(printed, GetParam().follows
                         ? ""
                         : Model(GetParam().name).unary(referenced).printed);
  EXPECT_TRUE(same_bytes(written, garbage()));
}

INSTANTIATE_TEST_SUITE_P(
    OfTypes, EveryOperand,
    testing::Values(UnaryOperator{"VarNot", VarNot, true},
                    UnaryOperator{"VarRound", round_to_whole, false},
                    UnaryOperator{"VarInt", VarInt, false},
                    UnaryOperator{"VarFix", VarFix, false},
                    UnaryOperator{"VarAbs", VarAbs, false}));

// ---------------------------------------------------------------------------
// Arithmetic
// ---------------------------------------------------------------------------

/// One call of a binary operator on values that own nothing but texts.
struct Made {
  Made(Binary op, _variant_t left, _variant_t right) {
    VARIANT written = garbage();
    printed = printed::by([&] { result = op(&left, &right, &written); });
    untouched = same_bytes(written, garbage());
    if (!untouched) value = owned(written);
  }
  Made(Unary op, _variant_t operand)
      : Made([op](VARIANT* left, VARIANT* out) { return op(left, out); },
             std::move(operand)) {}
  Made(const std::function<HRESULT(VARIANT*, VARIANT*)>& op,
       _variant_t operand) {
    VARIANT written = garbage();
    printed = printed::by([&] { result = op(&operand, &written); });
    untouched = same_bytes(written, garbage());
    if (!untouched) value = owned(written);
  }

  HRESULT result = E_FAIL;
  _variant_t value;
  bool untouched = false;
  std::string printed;
};

_variant_t i8(std::int64_t value) { return {value}; }
_variant_t r8(double value) { return {value}; }
_variant_t truth(std::uint64_t bits) { return owned(plain(VT_BOOL, bits)); }
_variant_t empty() { return {}; }
_variant_t null() { return owned(plain(VT_NULL, 0)); }

struct ArithmeticRow {
  const char* what;
  Binary op;
  _variant_t left;
  _variant_t right;
  _variant_t value;
};

void expect_results(const std::vector<ArithmeticRow>& rows) {
  for (const ArithmeticRow& row : rows) {
    SCOPED_TRACE(row.what);
    const Made made(row.op, row.left, row.right);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, row.value.vt);
    EXPECT_EQ(made.printed, "");
    if (row.value.vt == VT_BSTR) {
      EXPECT_EQ(text_of(made.value), text_of(row.value));
    } else {
      EXPECT_EQ(made.value.ullVal, row.value.ullVal);
    }
  }
}

TEST(Arithmetic, Adds) {
  expect_results(
      {{"2 + 3", VarAdd, i8(2), i8(3), i8(5)},
       {"2 + 0.5", VarAdd, i8(2), r8(0.5), r8(2.5)},
       {"0.5 + 2", VarAdd, r8(0.5), i8(2), i8(2)},
       {"0.1 + 0.2", VarAdd, r8(0.1), r8(0.2), r8(0.1 + 0.2)},
       {"'5' + 1", VarAdd, L"5", i8(1), i8(6)},
       {"1 + '5'", VarAdd, i8(1), L"5", i8(6)},
       {"'5' + 0.5", VarAdd, L"5", r8(0.5), r8(5.5)},
       {"0.5 + '5'", VarAdd, r8(0.5), L"5", r8(5.5)},
       {"'5' + '6'", VarAdd, L"5", L"6", L"56"},
       {"empty + 3", VarAdd, empty(), i8(3), i8(3)},
       {"3 + empty", VarAdd, i8(3), empty(), i8(3)},
       {"true + 3", VarAdd, true, i8(3), i8(2)},
       {"3 + true", VarAdd, i8(3), true, i8(2)},
       {"true + 0.5", VarAdd, true, r8(0.5), r8(-0.5)},
       {"largest + 1", VarAdd, i8(kLargest), i8(1), i8(kSmallest)},
       {"smallest + -1", VarAdd, i8(kSmallest), i8(-1), i8(kLargest)},
       {"smallest + smallest", VarAdd, i8(kSmallest), i8(kSmallest), i8(0)},
       {"1e308 + 1e308", VarAdd, r8(1e308), r8(1e308), r8(kInfinity)}});
}

TEST(Arithmetic, Subtracts) {
  expect_results(
      {{"2 - 3", VarSub, i8(2), i8(3), i8(-1)},
       {"2 - 0.5", VarSub, i8(2), r8(0.5), r8(1.5)},
       {"0.5 - 2", VarSub, r8(0.5), i8(2), r8(-1.5)},
       {"'5' - 0.5", VarSub, L"5", r8(0.5), r8(4.5)},
       {"0.5 - '5'", VarSub, r8(0.5), L"5", r8(-4.5)},
       {"0.5 - true", VarSub, r8(0.5), true, r8(1.5)},
       {"smallest - 1", VarSub, i8(kSmallest), i8(1), i8(kLargest)},
       {"0 - smallest", VarSub, i8(0), i8(kSmallest), i8(kSmallest)}});
}

TEST(Arithmetic, Multiplies) {
  expect_results(
      {{"2 * 3", VarMul, i8(2), i8(3), i8(6)},
       {"2 * 0.5", VarMul, i8(2), r8(0.5), r8(1.0)},
       {"0.5 * 3", VarMul, r8(0.5), i8(3), r8(1.5)},
       {"'5' * 0.5", VarMul, L"5", r8(0.5), r8(2.5)},
       {"true * 3", VarMul, true, i8(3), i8(-3)},
       {"3 * true", VarMul, i8(3), true, i8(-3)},
       {"true * true", VarMul, true, true, i8(1)},
       {"true * 2.0", VarMul, true, r8(2.0), r8(-2.0)},
       {"2.0 * true", VarMul, r8(2.0), true, r8(-2.0)},
       {"largest * 2", VarMul, i8(kLargest), i8(2), i8(-2)},
       {"smallest * -1", VarMul, i8(kSmallest), i8(-1), i8(kSmallest)},
       {"2^32 * 2^32", VarMul, i8(4294967296), i8(4294967296), i8(0)},
       {"-7 * 6", VarMul, i8(-7), i8(6), i8(-42)}});
}

TEST(Arithmetic, Divides) {
  expect_results({{"7 / 2", VarDiv, i8(7), i8(2), r8(3.5)},
                  {"8 / 2", VarDiv, i8(8), i8(2), r8(4.0)},
                  {"-7 / 2", VarDiv, i8(-7), i8(2), r8(-3.5)},
                  {"0 / 5", VarDiv, i8(0), i8(5), r8(0.0)},
                  {"smallest / -1", VarDiv, i8(kSmallest), i8(-1),
                   r8(9223372036854775808.0)},
                  {"7 / 0.5", VarDiv, i8(7), r8(0.5), r8(14.0)},
                  {"0.5 / 2", VarDiv, r8(0.5), i8(2), r8(0.25)},
                  {"'5' / 2.0", VarDiv, L"5", r8(2.0), r8(2.5)},
                  {"1.0 / '4'", VarDiv, r8(1.0), L"4", r8(0.25)},
                  {"1e308 / 0.1", VarDiv, r8(1e308), r8(0.1), r8(kInfinity)}});
}

TEST(Arithmetic, TakesRemainders) {
  expect_results(
      {{"7 mod 3", VarMod, i8(7), i8(3), i8(1)},
       {"-7 mod 3", VarMod, i8(-7), i8(3), i8(-1)},
       {"7 mod -3", VarMod, i8(7), i8(-3), i8(1)},
       {"-7 mod -3", VarMod, i8(-7), i8(-3), i8(-1)},
       {"0 mod 5", VarMod, i8(0), i8(5), i8(0)},
       {"7 mod -1", VarMod, i8(7), i8(-1), i8(0)},
       {"smallest mod -1", VarMod, i8(kSmallest), i8(-1), i8(0)},
       {"smallest mod 10", VarMod, i8(kSmallest), i8(10), i8(-8)},
       {"7 mod smallest", VarMod, i8(7), i8(kSmallest), i8(7)},
       {"smallest mod smallest", VarMod, i8(kSmallest), i8(kSmallest), i8(0)}});
}

TEST(Arithmetic, RaisesToPowers) {
  expect_results(
      {{"2 ^ 3", VarPow, i8(2), i8(3), i8(8)},
       {"2 ^ -1", VarPow, i8(2), i8(-1), i8(0)},
       {"-2 ^ 3", VarPow, i8(-2), i8(3), i8(-8)},
       {"0 ^ 0", VarPow, i8(0), i8(0), i8(1)},
       {"0 ^ -1", VarPow, i8(0), i8(-1), i8(kSmallest)},
       {"2 ^ 62", VarPow, i8(2), i8(62), i8(4611686018427387904)},
       {"2 ^ 63", VarPow, i8(2), i8(63), i8(kSmallest)},
       {"10 ^ 18", VarPow, i8(10), i8(18), i8(1000000000000000000)},
       {"10 ^ 400", VarPow, i8(10), i8(400), i8(kSmallest)},
       // Through doubles: not 4052555153018976267, and an even exponent.
       {"3 ^ 39", VarPow, i8(3), i8(39), i8(4052555153018976256)},
       {"-1 ^ largest", VarPow, i8(-1), i8(kLargest), i8(1)},
       {"4 ^ 0.5", VarPow, i8(4), r8(0.5), r8(2.0)},
       {"2.5 ^ 2", VarPow, r8(2.5), i8(2), r8(6.25)},
       {"0.5 ^ -2", VarPow, r8(0.5), i8(-2), r8(4.0)},
       {"2.0 ^ 3.0", VarPow, r8(2.0), r8(3.0), r8(8.0)},
       {"0 ^ -1.0", VarPow, i8(0), r8(-1.0), r8(kInfinity)},
       {"10.0 ^ 400", VarPow, r8(10.0), i8(400), r8(kInfinity)}});
}

TEST(Power, OfANegativeNumberMayBeNone) {
  const Made made(VarPow, i8(-8), r8(0.5));

  EXPECT_EQ(made.result, S_OK);
  EXPECT_EQ(made.value.vt, VT_R8);
  EXPECT_TRUE(std::isnan(made.value.dblVal));
}

struct DivisionRow {
  Binary op;
  _variant_t left;
  _variant_t right;
};

TEST(DivisionByZero, LeavesTheResultUntouched) {
  const std::vector<DivisionRow> rows = {
      {VarDiv, i8(7), i8(0)},        {VarDiv, i8(0), i8(0)},
      {VarDiv, r8(7), r8(0.0)},      {VarDiv, r8(7), r8(-0.0)},
      {VarDiv, i8(7), r8(0.0)},      {VarDiv, r8(7), i8(0)},
      {VarDiv, r8(7), empty()},      {VarDiv, r8(7), L"0"},
      {VarDiv, r8(7), false},        {VarDiv, L"7", r8(0.0)},
      {VarDiv, r8(kNaN), r8(0.0)},   {VarMod, i8(7), i8(0)},
      {VarMod, i8(kSmallest), i8(0)}};
  for (const DivisionRow& row : rows) {
    const Made made(row.op, row.left, row.right);

    EXPECT_EQ(made.result, DISP_E_DIVBYZERO);
    EXPECT_TRUE(made.untouched);
    EXPECT_EQ(made.printed, "");
  }
}

TEST(DivisionByZero, IsFoundBehindTheTypes) {
  const Made text(VarDiv, L"7", i8(0));
  const Made empty_divisor(VarDiv, i8(7), empty());
  const Made remainder(VarMod, r8(7), i8(0));

  EXPECT_EQ(text.result, E_INVALIDARG);
  EXPECT_EQ(text.printed, printed::stub_line("VarDiv", 686, "vt:8->20"));
  EXPECT_EQ(empty_divisor.result, E_INVALIDARG);
  EXPECT_EQ(empty_divisor.printed,
            printed::stub_line("VarDiv", 686, "vt:20->0"));
  EXPECT_EQ(remainder.result, E_INVALIDARG);
  EXPECT_EQ(remainder.printed, printed::stub_line("VarMod", 651, "vt:5->20"));
}

TEST(DivisionByNaN, IsNone) {
  const Made made(VarDiv, r8(7), r8(kNaN));

  EXPECT_EQ(made.result, S_OK);
  EXPECT_TRUE(std::isnan(made.value.dblVal));
}

struct RefusalRow {
  Binary op;
  _variant_t left;
  _variant_t right;
  std::string printed;
};

TEST(UnsupportedOperands, ArePrintedBehindTheirConversions) {
  using printed::stub_line;
  const auto i4 = [] { return owned(plain(VT_I4, 1)); };
  const auto r4 = [] { return owned(plain(VT_R4, 0)); };
  const std::string convert = "VariantChangeType";
  const std::vector<RefusalRow> rows = {
      {VarAdd, i4(), i4(), stub_line("VarAdd", 728, "vt:3->3")},
      {VarAdd, true, true, stub_line("VarAdd", 728, "vt:11->11")},
      {VarAdd, L"abc", i8(1), stub_line("VarAdd", 728, "vt:0->20")},
      {VarAdd, i8(1), L"abc", stub_line("VarAdd", 728, "vt:20->0")},
      {VarAdd, r8(1), L"abc", stub_line("VarAdd", 728, "vt:5->0")},
      {VarAdd, null(), i8(1),
       stub_line(convert, 1045, "vt:1->20") +
           stub_line("VarAdd", 728, "vt:0->20")},
      {VarSub, i8(1), L"1", stub_line("VarSub", 759, "vt:20->8")},
      {VarMul, r8(1), i4(),
       stub_line(convert, 1009, "vt:3->5") +
           stub_line("VarMul", 633, "vt:5->0")},
      {VarMul, true, L"1", stub_line("VarMul", 633, "vt:20->8")},
      {VarDiv, i4(), r8(1),
       stub_line(convert, 1009, "vt:3->5") +
           stub_line("VarDiv", 686, "vt:0->5")},
      {VarMod, i8(1), r8(1), stub_line("VarMod", 651, "vt:20->5")},
      {VarPow, L"2", i8(1), stub_line("VarPow", 594, "vt:8->20")},
      {VarCat, r4(), L"x",
       stub_line(convert, 940, "vt:4->8") +
           stub_line("VarCat", 810, "vt:0->8")},
      {VarCat, r4(), r4(),
       stub_line(convert, 940, "vt:4->8") + stub_line(convert, 940, "vt:4->8") +
           stub_line("VarCat", 810, "vt:0->0")},
      {VarCat, null(), r4(), stub_line(convert, 940, "vt:4->8")},
      {VarCat, r4(), null(), stub_line(convert, 940, "vt:4->8")},
      {compare, i4(), r8(1),
       stub_line(convert, 1009, "vt:3->5") +
           stub_line("VarCmp", 488, "vt:0->5")},
      {compare, empty(), empty(), stub_line("VarCmp", 488, "vt:0->0")},
      {compare, null(), null(), stub_line("VarCmp", 488, "vt:1->1")},
      {compare, empty(), true, stub_line("VarCmp", 488, "vt:0->11")},
      {VarAnd, i8(1), i8(1), stub_line("VarAnd", 391, "vt:20->20")},
      {VarOr, true, i8(1), stub_line("VarOr", 407, "vt:11->20")},
      {VarXor, null(), true, stub_line("VarXor", 423, "vt:1->11")},
  };
  for (const RefusalRow& row : rows) {
    SCOPED_TRACE(row.printed);
    const Made made(row.op, row.left, row.right);

    EXPECT_EQ(made.result, E_INVALIDARG);
    EXPECT_EQ(made.printed, row.printed);
    EXPECT_TRUE(made.untouched);
  }
}

// ---------------------------------------------------------------------------
// Logic
// ---------------------------------------------------------------------------

TEST(Logic, IsBitwise) {
  struct Row {
    std::uint64_t left;
    std::uint64_t right;
    std::uint64_t both;
    std::uint64_t either;
    std::uint64_t one;
  };
  const std::vector<Row> rows = {
      {0, 0, 0, 0, 0},
      {0, 0xFFFF, 0, 0xFFFF, 0xFFFF},
      {0xFFFF, 0, 0, 0xFFFF, 0xFFFF},
      {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0},
      {1, 2, 0, 3, 3},
      {6, 3, 2, 7, 5},
      {0x8000, 0x8001, 0x8000, 0x8001, 1},
      {0xA5A5A5A5A5A50001, 0x0001, 1, 1, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.left);
    const _variant_t left = truth(row.left);
    const _variant_t right = truth(row.right);
    const std::vector<std::pair<Binary, std::uint64_t>> calls = {
        {VarAnd, row.both}, {VarOr, row.either}, {VarXor, row.one}};
    for (const auto& [op, payload] : calls) {
      const Made made(op, left, right);

      EXPECT_EQ(made.result, S_OK);
      EXPECT_EQ(made.value.vt, VT_BOOL);
      EXPECT_EQ(made.value.ullVal, payload);
    }
  }
}

TEST(Logic, ComplementsBits) {
  const std::vector<std::pair<std::uint64_t, std::uint64_t>> rows = {
      {0, 0xFFFF},
      {0xFFFF, 0},
      {1, 0xFFFE},
      {0x7FFF, 0x8000},
      {0xA5A50000, 0xFFFF}};
  for (const auto& [bits, complement] : rows) {
    SCOPED_TRACE(bits);
    const Made made(VarNot, truth(bits));

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, VT_BOOL);
    EXPECT_EQ(made.value.ullVal, complement);
  }
}

// ---------------------------------------------------------------------------
// Rounding
// ---------------------------------------------------------------------------

Made rounded(const _variant_t& value, int decimals) {
  return {[decimals](VARIANT* operand, VARIANT* result) {
            return VarRound(operand, decimals, result);
          },
          value};
}

struct RoundRow {
  double value;
  int decimals;
  double rounded;
};

double tenths(double value, int times) {
  for (int i = 0; i < times; ++i) value /= 10;
  return value;
}

// Deliberate: -0.5 and less come out near 2^64, as unsigned numbers do.
TEST(Rounding, GoesThroughAnUnsignedNumber) {
  const std::vector<RoundRow> rows = {
      {0.0, 0, 0.0},
      {0.3, 0, 0.0},
      {0.49, 0, 0.0},
      {0.5, 0, 1.0},
      {1.5, 0, 2.0},
      {2.5, 0, 3.0},
      {2.49, 0, 2.0},
      {3.5, 0, 4.0},
      {123456.5, 0, 123457.0},
      {-0.0, 0, 0.0},
      {-0.4, 0, 0.0},
      {-0.5, 0, 1.8446744073709552e19},
      {-2.5, 0, 1.8446744073709552e19},
      {-1e18, 0, 1.7446744073709552e19},
      {-9223372036854774784.0, 0, 9223372036854776832.0},
      {-9223372036854775808.0, 0, 9223372036854775808.0},
      {4503599627370496.0, 0, 4503599627370496.0},
      {9223372036854774784.0, 0, 9223372036854774784.0},
      {9223372036854775808.0, 0, 9223372036854775808.0},
      {18446744073709549568.0, 0, 18446744073709549568.0},
      {18446744073709551616.0, 0, 1.0},
      {1e300, 0, 1.0},
      {kInfinity, 0, 1.0},
      {-1e19, 0, 9.2233720368547758e18},
      {-1e300, 0, 9.2233720368547758e18},
      {-kInfinity, 0, 9.2233720368547758e18},
      {kNaN, 0, 9.2233720368547758e18},
  };
  for (const RoundRow& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.value));
    const Made made = rounded(r8(row.value), row.decimals);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, VT_R8);
    EXPECT_EQ(made.value.dblVal, row.rounded);
  }
}

TEST(Rounding, KeepsDecimals) {
  const std::vector<RoundRow> rows = {
      {2.345, 2, 2.35},
      {1.005, 2, 1.0},  // 1.005 is a little less
      {0.125, 2, 0.13},
      // Ten at a time: a hundred at once would land on the other side of a
      // half.
      {0.145, 2, tenths(15, 2)},
      {0.235, 2, tenths(23, 2)},
      {0.0215, 3, tenths(21, 3)},
      {0.0055, 3, tenths(5, 3)},
      {2.5, 1, 2.5},
      {0.04, 1, 0.0},
      {0.05, 1, 0.1},
      {-0.004, 2, 0.0},
      {1234.5678, 3, tenths(1234568, 3)},
      {0.1234567890123, 10, tenths(1234567890, 10)},
      {1234.5, -2, 1235.0},
      {1250.0, -1, 1250.0},
      {2.5, std::numeric_limits<int>::min(), 3.0},
      {-2.5, 2, tenths(1.8446744073709552e19, 2)},
      // Beyond 2^64 only the 1 is left that was added.
      {2.345, 20, tenths(1.0, 20)},
      {2.345, 400, 0.0},
      {0.0, 400, 0.0},
  };
  for (const RoundRow& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.value));
    const Made made = rounded(r8(row.value), row.decimals);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, VT_R8);
    EXPECT_DOUBLE_EQ(made.value.dblVal, row.rounded);
  }
}

TEST(Rounding, MultipliesAndDividesByTenOneAtATime) {
  // One division at a time rounds otherwise than one by a power would.
  for (int decimals = 1; decimals <= 27; ++decimals) {
    SCOPED_TRACE(decimals);
    double scaled = 1.1e-12;
    for (int i = 0; i < decimals; ++i) scaled *= 10;
    const auto whole = static_cast<std::uint64_t>(std::floor(scaled + 0.5));
    const Made made = rounded(r8(1.1e-12), decimals);

    EXPECT_EQ(made.value.dblVal, tenths(static_cast<double>(whole), decimals));
  }
}

TEST(Rounding, ToAsManyDecimalsAsFitAnIntEnds) {
  const Made one = rounded(r8(1.0), std::numeric_limits<int>::max());
  const Made zero = rounded(r8(0.0), std::numeric_limits<int>::max());

  EXPECT_EQ(one.result, S_OK);
  EXPECT_EQ(one.value.dblVal, 0.0);
  EXPECT_EQ(zero.result, S_OK);
  EXPECT_EQ(zero.value.dblVal, 0.0);
}

TEST(Rounding, CopiesIntegers) {
  for (const std::int64_t value :
       {kSmallest, std::int64_t{-15}, std::int64_t{0}, kLargest}) {
    for (const int decimals : {-1, 0, 1, 400}) {
      SCOPED_TRACE(value);
      const Made made = rounded(i8(value), decimals);

      EXPECT_EQ(made.result, S_OK);
      EXPECT_EQ(made.value.vt, VT_I8);
      EXPECT_EQ(made.value.llVal, value);
    }
  }
}

struct UnaryRow {
  Unary op;
  _variant_t operand;
  _variant_t value;
};

void expect_rows(const std::vector<UnaryRow>& rows) {
  for (const UnaryRow& row : rows) {
    SCOPED_TRACE(row.operand.vt == VT_R8
                     ? testing::PrintToString(row.operand.dblVal)
                     : testing::PrintToString(row.operand.llVal));
    const Made made(row.op, row.operand);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, row.value.vt);
    EXPECT_EQ(made.value.ullVal, row.value.ullVal);
    EXPECT_EQ(made.printed, "");
  }
}

TEST(IntegerPart, IsOneLessForNegativeNumbers) {
  expect_rows({{VarInt, r8(2.7), r8(2.0)},
               {VarInt, r8(2.0), r8(2.0)},
               {VarInt, r8(0.5), r8(0.0)},
               {VarInt, r8(0.0), r8(0.0)},
               {VarInt, r8(-0.5), r8(-1.0)},
               {VarInt, r8(-2.0), r8(-3.0)},
               {VarInt, r8(-2.7), r8(-3.0)},
               {VarInt, r8(1e15 + 0.5), r8(1e15)},
               {VarInt, r8(1e300), r8(1e300)},
               {VarInt, r8(kInfinity), r8(kInfinity)},
               {VarInt, r8(-kInfinity), r8(-kInfinity)},
               {VarInt, i8(-7), i8(-7)},
               {VarInt, i8(kSmallest), i8(kSmallest)}});
}

TEST(IntegerPart, OfNegativeZeroIsZero) {
  const Made made(VarInt, r8(-0.0));

  EXPECT_EQ(made.value.vt, VT_R8);
  EXPECT_EQ(made.value.dblVal, 0.0);
}

TEST(IntegerPart, OfNoNumberIsNone) {
  const Made made(VarInt, r8(kNaN));

  EXPECT_EQ(made.value.vt, VT_R8);
  EXPECT_TRUE(std::isnan(made.value.dblVal));
}

TEST(TruncatedNumber, IsAnInteger) {
  expect_rows({{VarFix, r8(2.7), i8(2)},
               {VarFix, r8(-2.7), i8(-2)},
               {VarFix, r8(-0.9), i8(0)},
               {VarFix, r8(-2.0), i8(-2)},
               {VarFix, r8(9223372036854774784.0), i8(9223372036854774784)},
               {VarFix, r8(9223372036854775808.0), i8(kSmallest)},
               {VarFix, r8(-9223372036854775808.0), i8(kSmallest)},
               {VarFix, r8(1e300), i8(kSmallest)},
               {VarFix, r8(-kInfinity), i8(kSmallest)},
               {VarFix, r8(kNaN), i8(kSmallest)},
               {VarFix, i8(-7), i8(-7)},
               {VarFix, i8(kLargest), i8(kLargest)}});
}

TEST(AbsoluteValue, KeepsTheType) {
  expect_rows({{VarAbs, r8(2.5), r8(2.5)},
               {VarAbs, r8(-2.5), r8(2.5)},
               {VarAbs, r8(-kInfinity), r8(kInfinity)},
               {VarAbs, r8(-0.0), r8(-0.0)},
               {VarAbs, r8(-1e-300), r8(1e-300)},
               {VarAbs, i8(7), i8(7)},
               {VarAbs, i8(-7), i8(7)},
               {VarAbs, i8(0), i8(0)},
               {VarAbs, i8(kLargest), i8(kLargest)},
               {VarAbs, i8(-kLargest), i8(kLargest)},
               {VarAbs, i8(kSmallest), i8(kSmallest)}});
}

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

struct TextRow {
  _variant_t left;
  _variant_t right;
  std::wstring text;
};

/// Joins `row` with `op`; only texts with zeros lose something in its copies.
void expect_joined(Binary op, _variant_t left, _variant_t right,
                   const std::wstring& text) {
  VARIANT written = garbage();

  EXPECT_EQ(op(&left, &right, &written), S_OK);
  ASSERT_EQ(written.vt, VT_BSTR);
  ASSERT_FALSE(same_bytes(written, garbage()));
  const _variant_t owner = owned(written);
  EXPECT_EQ(text_of(owner), text);
  if (owner.bstrVal != nullptr) {
    EXPECT_EQ(owner.bstrVal[text.size()], L'\0');
  }
}

TEST(Concatenation, TurnsBothIntoText) {
  const std::vector<TextRow> rows = {
      {L"ab", L"cd", L"abcd"},
      {L"", L"cd", L"cd"},
      {L"ab", L"", L"ab"},
      {L"", L"", L""},
      {i8(1), i8(2), L"12"},
      {i8(-1), L"x", L"-1x"},
      {r8(2.5), true, L"2.5-1"},
      {empty(), L"a", L"a"},
      {empty(), empty(), L""},
      {L"\u00e4", L"\U0001F600", L"\u00e4\U0001F600"},
  };
  for (const TextRow& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.text));
    expect_joined(VarCat, row.left, row.right, row.text);
  }
}

TEST(Concatenation, TakesNullForNoText) {
  const std::vector<TextRow> rows = {
      {null(), i8(12), L"12"},     {i8(12), null(), L"12"},
      {null(), L"ab", L"ab"},      {L"ab", null(), L"ab"},
      {null(), empty(), L""},      {null(), true, L"-1"},
      {null(), r8(-2.5), L"-2.5"},
  };
  for (const TextRow& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.text));
    expect_joined(VarCat, row.left, row.right, row.text);
  }
}

TEST(Concatenation, OfTwoNullsIsNull) {
  VARIANT left = plain(VT_NULL, 0);
  VARIANT right = plain(VT_NULL, 0);
  VARIANT written = garbage();

  EXPECT_EQ(VarCat(&left, &right, &written), S_OK);
  EXPECT_EQ(written.vt, VT_NULL);
}

/// The operands are made by a copy that would lose zeros, hence not by rows.
TEST(Concatenation, KeepsZerosInside) {
  for (const Binary op : {VarCat, VarAdd}) {
    _variant_t left = text_value(std::wstring(L"a\000b", 3));
    _variant_t right = text_value(std::wstring(L"\000c\000", 3));
    VARIANT written = garbage();

    EXPECT_EQ(op(&left, &right, &written), S_OK);
    ASSERT_EQ(written.vt, VT_BSTR);
    const _variant_t owner = owned(written);
    EXPECT_EQ(text_of(owner), std::wstring(L"a\000b\000c\000", 6));
    EXPECT_EQ(owner.bstrVal[6], L'\0');
  }
}

TEST(Concatenation, KeepsTheCountedTerminatorOfALpstr) {
  _variant_t left = lpstr_value("ab");
  _variant_t right(L"c");
  VARIANT written = garbage();

  EXPECT_EQ(VarCat(&left, &right, &written), S_OK);
  ASSERT_EQ(written.vt, VT_BSTR);
  EXPECT_EQ(text_of(owned(written)), std::wstring(L"ab\000c", 4));
}

TEST(Concatenation, WithNullCopiesSoThatTextsEndAtTheirFirstZero) {
  _variant_t left = text_value(std::wstring(L"a\000b", 3));
  VARIANT right = plain(VT_NULL, 0);
  VARIANT written = garbage();

  EXPECT_EQ(VarCat(&left, &right, &written), S_OK);
  ASSERT_EQ(written.vt, VT_BSTR);
  EXPECT_EQ(text_of(owned(written)), L"a");
}

TEST(Concatenation, ReadsNullTextsAsEmpty) {
  VARIANT none = plain(VT_BSTR, 0);
  _variant_t some(L"ab");
  const std::vector<std::pair<VARIANT*, VARIANT*>> rows = {
      {&none, &some}, {&some, &none}, {&none, &none}};
  for (const auto& [left, right] : rows) {
    VARIANT written = garbage();

    EXPECT_EQ(VarCat(left, right, &written), S_OK);
    ASSERT_EQ(written.vt, VT_BSTR);
    const _variant_t owner = owned(written);
    ASSERT_NE(owner.bstrVal, nullptr);
    EXPECT_EQ(text_of(owner), left == right ? L"" : L"ab");
    EXPECT_EQ(owner.bstrVal[SysStringLen(owner.bstrVal)], L'\0');
  }
}

TEST(Concatenation, ReturnsADefaultMembersFailureBesideNull) {
  objects::Dispatch object(
      [](const objects::Dispatch::Call&) { return DISP_E_MEMBERNOTFOUND; });
  const Made beside_null(VarCat, null(), &object);
  const Made beside_text(VarCat, &object, L"x");

  EXPECT_EQ(beside_null.result, DISP_E_MEMBERNOTFOUND);
  EXPECT_TRUE(beside_null.untouched);
  EXPECT_EQ(beside_null.printed, "");
  EXPECT_EQ(beside_text.result, E_INVALIDARG);
  EXPECT_TRUE(beside_text.untouched);
  EXPECT_EQ(beside_text.printed, printed::stub_line("VarCat", 810, "vt:0->8"));
}

TEST(Concatenation, OfLongTextsIsWhole) {
  const std::wstring left(100000, L'l');
  const std::wstring right(100001, L'r');

  expect_joined(VarCat, left.c_str(), right.c_str(), left + right);
}

// ---------------------------------------------------------------------------
// Comparison
// ---------------------------------------------------------------------------

struct ComparisonRow {
  _variant_t left;
  _variant_t right;
  HRESULT result;
};

void expect_comparisons(const std::vector<ComparisonRow>& rows) {
  int number = 0;
  for (const ComparisonRow& row : rows) {
    SCOPED_TRACE(number++);
    const Made made(compare, row.left, row.right);
    const Made turned(compare, row.right, row.left);

    EXPECT_EQ(made.result, row.result);
    EXPECT_EQ(turned.result, 2 - row.result);
    EXPECT_EQ(made.printed, "");
  }
}

TEST(Comparison, OfNumbersIsByValue) {
  const auto i4 = [](std::int64_t value) {
    return owned(plain(VT_I4, static_cast<std::uint64_t>(value)));
  };
  expect_comparisons({{i8(1), i8(2), VARCMP_LT},
                      {i8(2), i8(2), VARCMP_EQ},
                      {i8(kSmallest), i8(kLargest), VARCMP_LT},
                      {i8(-1), i8(0), VARCMP_LT},
                      {r8(1.5), r8(1.6), VARCMP_LT},
                      {r8(0.0), r8(-0.0), VARCMP_EQ},
                      {r8(-kInfinity), r8(kInfinity), VARCMP_LT},
                      {i8(2), r8(2.5), VARCMP_LT},
                      {i8(3), r8(2.5), VARCMP_GT},
                      // Compared as doubles, these two are one.
                      {i8(9007199254740993), r8(9007199254740992.0), VARCMP_EQ},
                      {i4(1), i4(2), VARCMP_LT},
                      {i4(4294967296), i4(1), VARCMP_GT},
                      {i4(-1), i4(1), VARCMP_LT},
                      {i4(4294967296), i8(4294967296), VARCMP_EQ},
                      {empty(), i8(0), VARCMP_EQ},
                      {empty(), i8(1), VARCMP_LT},
                      {empty(), r8(-0.5), VARCMP_GT}});
}

TEST(Comparison, FindsNoNumberEqualToEverything) {
  expect_comparisons({{r8(kNaN), r8(1.0), VARCMP_EQ},
                      {r8(kNaN), r8(kNaN), VARCMP_EQ},
                      {r8(kNaN), i8(7), VARCMP_EQ},
                      {r8(kNaN), r8(kInfinity), VARCMP_EQ},
                      {r8(kNaN), empty(), VARCMP_EQ}});
}

TEST(Comparison, FindsTrueLessThanFalse) {
  expect_comparisons({{true, false, VARCMP_LT},
                      {true, true, VARCMP_EQ},
                      {false, false, VARCMP_EQ},
                      {truth(1), false, VARCMP_GT},
                      {truth(0x7FFF), truth(0x8000), VARCMP_GT},
                      {truth(0x10000), truth(0), VARCMP_EQ},
                      {true, i8(-1), VARCMP_EQ},
                      {true, i8(0), VARCMP_LT},
                      {true, r8(-1.0), VARCMP_EQ},
                      {false, r8(0.5), VARCMP_LT}});
}

const std::vector<ComparisonRow>& text_comparisons() {
  static const std::vector<ComparisonRow> rows = {
      {L"abc", L"abd", VARCMP_LT},
      {L"abc", L"abc", VARCMP_EQ},
      {L"abc", L"ab", VARCMP_GT},
      {L"", L"a", VARCMP_LT},
      {L"", L"", VARCMP_EQ},
      // By code point: upper case first, then by number, in any language.
      {L"B", L"a", VARCMP_LT},
      {L"abc", L"ABC", VARCMP_GT},
      {L"z", L"\u00e4", VARCMP_LT},
      {L"\uffff", L"\U00010000", VARCMP_LT},
      {L"a-b", L"aa", VARCMP_LT},
      // Anything beside a text is a text.
      {L"abc", i8(5), VARCMP_GT},
      {L"10", i8(9), VARCMP_LT},
      {L"9", i8(9), VARCMP_EQ},
      {L"9.0", r8(9.0), VARCMP_GT},
      {L"-1", true, VARCMP_EQ},
      {L"", empty(), VARCMP_EQ},
      {L"x", empty(), VARCMP_GT},
      {L"", null(), VARCMP_EQ},
      {L"x", null(), VARCMP_GT},
  };
  return rows;
}

TEST(Comparison, OfTextsIsByCodePoint) {
  expect_comparisons(text_comparisons());
}

TEST(Comparison, OfTextsDoesNotCollateInALocale) {
  const std::string before = std::setlocale(LC_ALL, nullptr);
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  expect_comparisons(text_comparisons());
  std::setlocale(LC_ALL, before.c_str());
}

TEST(Comparison, OfTextsEndsAtTheirFirstZero) {
  _variant_t left = text_value(std::wstring(L"a\000b", 3));
  _variant_t right = text_value(std::wstring(L"a\000c", 3));
  _variant_t plain_text(L"a");
  _variant_t narrow = lpstr_value("a");

  EXPECT_EQ(VarCmp(&left, &right, 0, 0), VARCMP_EQ);
  EXPECT_EQ(VarCmp(&left, &plain_text, 0, 0), VARCMP_EQ);
  EXPECT_EQ(VarCmp(&narrow, &plain_text, 0, 0), VARCMP_EQ);
}

TEST(Comparison, ReadsNullTextsAsEmpty) {
  VARIANT none = plain(VT_BSTR, 0);
  _variant_t nothing(L"");
  _variant_t some(L"a");

  EXPECT_EQ(VarCmp(&none, &none, 0, 0), VARCMP_EQ);
  EXPECT_EQ(VarCmp(&none, &nothing, 0, 0), VARCMP_EQ);
  EXPECT_EQ(VarCmp(&none, &some, 0, 0), VARCMP_LT);
  EXPECT_EQ(VarCmp(&some, &none, 0, 0), VARCMP_GT);
}

TEST(LessThan, IsComparison) {
  EXPECT_TRUE(i8(1) < i8(2));
  EXPECT_FALSE(i8(2) < i8(2));
  EXPECT_FALSE(i8(3) < i8(2));
  EXPECT_TRUE(_variant_t(true) < _variant_t(false));
  EXPECT_TRUE(_variant_t(L"10") < i8(9));
  EXPECT_FALSE(r8(kNaN) < r8(1.0));
  EXPECT_FALSE(r8(1.0) < r8(kNaN));
}

TEST(LessThan, IsFalseWhereNothingCompares) {
  bool less = true;
  const std::string printed = printed::by([&] { less = empty() < empty(); });

  EXPECT_FALSE(less);
  EXPECT_EQ(printed, printed::stub_line("VarCmp", 488, "vt:0->0"));
}

// ---------------------------------------------------------------------------
// Where operands and results are
// ---------------------------------------------------------------------------

TEST(Result, MayBeAnOperand) {
  _variant_t left(std::int64_t{10});
  _variant_t right(std::int64_t{4});

  EXPECT_EQ(VarSub(&left, &right, &left), S_OK);
  EXPECT_EQ(left.llVal, 6);
  EXPECT_EQ(VarSub(&left, &right, &right), S_OK);
  EXPECT_EQ(right.llVal, 2);
  EXPECT_EQ(VarMul(&right, &right, &right), S_OK);
  EXPECT_EQ(right.llVal, 4);
  EXPECT_EQ(VarDiv(&left, &right, &left), S_OK);
  EXPECT_EQ(left.vt, VT_R8);
  EXPECT_EQ(left.dblVal, 1.5);
}

TEST(Result, MayBeTheOnlyOperand) {
  _variant_t value(-2.5);

  EXPECT_EQ(VarInt(&value, &value), S_OK);
  EXPECT_EQ(value.dblVal, -3.0);
  EXPECT_EQ(VarAbs(&value, &value), S_OK);
  EXPECT_EQ(value.dblVal, 3.0);
  EXPECT_EQ(VarRound(&value, 0, &value), S_OK);
  EXPECT_EQ(value.dblVal, 3.0);
  EXPECT_EQ(VarFix(&value, &value), S_OK);
  EXPECT_EQ(value.vt, VT_I8);
  EXPECT_EQ(value.llVal, 3);
}

TEST(Result, MayBeWhatAnOperandRefersTo) {
  _variant_t value(std::int64_t{10});
  _variant_t two(std::int64_t{2});
  VARIANT reference = reference_to(&value);

  EXPECT_EQ(VarMul(&reference, &two, &value), S_OK);
  EXPECT_EQ(value.llVal, 20);
  EXPECT_EQ(reference.pvarVal, &value);
}

TEST(Result, ThatIsAReferenceIsOverwrittenItself) {
  _variant_t value(std::int64_t{10});
  VARIANT reference = reference_to(&value);

  EXPECT_EQ(VarMul(&reference, &reference, &reference), S_OK);
  EXPECT_EQ(reference.vt, VT_I8);
  EXPECT_EQ(reference.llVal, 100);
  EXPECT_EQ(value.llVal, 10);
}

// The result is not cleared, so an operand's text is the caller's to free.
TEST(Result, OfConcatenationMayBeEitherOperand) {
  for (const bool on_left : {true, false}) {
    SCOPED_TRACE(on_left);
    VARIANT left = _variant_t(L"ab").Detach();
    VARIANT right = _variant_t(L"cd").Detach();
    VARIANT* const result = on_left ? &left : &right;
    const _variant_t before = owned(*result);

    EXPECT_EQ(VarCat(&left, &right, result), S_OK);
    EXPECT_EQ(text_of(left), on_left ? L"abcd" : L"ab");
    EXPECT_EQ(text_of(right), on_left ? L"cd" : L"abcd");
    EXPECT_NE(result->bstrVal, before.bstrVal);
    VariantClear(&left);
    VariantClear(&right);
  }
}

TEST(Result, OfConcatenationMayBeBothOperands) {
  VARIANT value = _variant_t(L"ab").Detach();
  const _variant_t before = owned(value);

  EXPECT_EQ(VarCat(&value, &value, &value), S_OK);
  EXPECT_EQ(text_of(value), L"abab");
  VariantClear(&value);
}

TEST(Result, OfConcatenationWithNullMayBeEitherOperand) {
  for (const bool on_left : {true, false}) {
    SCOPED_TRACE(on_left);
    _variant_t left(std::int64_t{12});
    _variant_t right = null();

    EXPECT_EQ(VarCat(&left, &right, on_left ? &left : &right), S_OK);
    EXPECT_EQ(text_of(on_left ? left : right), L"12");
  }
}

TEST(Result, IsNotClearedBeforeItIsWritten) {
  objects::Unknown held;
  _variant_t seven(std::int64_t{7});
  _variant_t nothing = null();
  const std::vector<std::pair<Binary, VARIANT*>> calls = {
      {VarAdd, &seven}, {VarCat, &seven}, {VarCat, &nothing}};
  for (const auto& [op, right] : calls) {
    VARIANT written = plain(VT_UNKNOWN, 0);
    written.punkVal = &held;

    EXPECT_EQ(op(&seven, right, &written), S_OK);
    EXPECT_NE(written.vt, VT_UNKNOWN);
    EXPECT_EQ(held.references(), 1U);
    VariantClear(&written);
  }
}

}  // namespace
