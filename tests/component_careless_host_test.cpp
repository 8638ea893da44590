// SPDX-License-Identifier: MIT
//
// Hosts that are careless with what they pass: references that lead in a
// circle, and objects that let go of the one that asks them.
//
// Sections: circles; what stands for nothing; references in a line; objects
// that let go.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_workbench.h"
#include "support/for_each.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/recordsets.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using component::Answer;
using component::dispatch_of;
using component::expect_exception;
using component::expect_refused;
using parameters::Chain;
using parameters::describe;
using parameters::Record;

// ---------------------------------------------------------------------------
// Circles
// ---------------------------------------------------------------------------

/// References of which so many lead into a circle of so many.
struct Shape {
  std::size_t before;
  std::size_t around;
};

constexpr Shape kShapes[] = {{0, 1},  {0, 2},   {0, 20},   {1, 1},
                             {1, 2},  {2, 20},  {7, 1},    {8, 8},
                             {9, 64}, {100, 3}, {100, 100}};

std::ostream& operator<<(std::ostream& out, const Shape& shape) {
  return out << shape.before << " references into a circle of " << shape.around;
}

class Circle {
 public:
  explicit Circle(const Shape& shape) : links_(shape.before + shape.around) {
    VARIANT* next = &links_[shape.before];
    for (std::size_t i = links_.size(); i > 0; --i) {
      links_[i - 1] = values::reference_to(next);
      next = &links_[i - 1];
    }
  }
  Circle(const Circle&) = delete;
  Circle& operator=(const Circle&) = delete;
  ~Circle() = default;

  /// Of a circle that nothing leads into: a part of it.
  VARIANT& front() { return links_.front(); }

 private:
  std::vector<VARIANT> links_;
};

/// A late-bound call whose one argument is this very variant and no copy of it.
Answer call_with(IDispatch* object, DISPID member, WORD flags,
                 VARIANT& argument) {
  DISPID named = DISPID_PROPERTYPUT;
  DISPPARAMS arguments{&argument, nullptr, 1, 0};
  if (flags == DISPATCH_PROPERTYPUT) {
    arguments.rgdispidNamedArgs = &named;
    arguments.cNamedArgs = 1;
  }
  component::Exception exception;
  Answer answer;
  answer.result = object->Invoke(member, IID_NULL, 0, flags, &arguments,
                                 &answer.value, exception.get(), nullptr);
  answer.code = exception->scode;
  if (exception->bstrSource != nullptr) answer.source = exception->bstrSource;
  if (exception->bstrDescription != nullptr) {
    answer.description = exception->bstrDescription;
  }
  return answer;
}

/// An array of one element, which is the argument as it is.
_variant_t array_of(const VARIANT& element) {
  return parameters::script_array_of(values::owned(element));
}

/// What is sent for a parameter with this value.
ZirdbOdbcValueKind kind_sent_for(IZIRDBParameter* parameter) {
  ZirdbOdbcParameter odbc;
  odbc.value.kind = ZirdbOdbcValueKind::Bool;
  EXPECT_EQ(workbench::to_odbc(parameter, &odbc), S_OK);
  return odbc.value.kind;
}

// ---------------------------------------------------------------------------
// What stands for nothing
// ---------------------------------------------------------------------------

/// Runs the body with the front of each circle.
void for_each_circle(const std::function<void(VARIANT&)>& body) {
  for (const Shape& shape : kShapes) {
    SCOPED_TRACE(testing::Message() << shape);
    Circle circle(shape);
    body(circle.front());
  }
}

TEST(ReferencesInACircle, AreNoNumber) {
  for_each_circle([](const VARIANT& circle) {
    long long number = 77;
    EXPECT_EQ(workbench::variant_to_long_long(&circle, &number), E_INVALIDARG);
    EXPECT_EQ(number, 77);
  });
}

TEST(ReferencesInACircle, AreNoText) {
  for_each_circle([](const VARIANT& circle) {
    _bstr_t text;
    EXPECT_EQ(workbench::variant_to_bstr_value(&circle, &text), E_INVALIDARG);
    EXPECT_EQ(text.m_s, nullptr);
  });
}

TEST(ReferencesInACircle, AreNoBytes) {
  for_each_circle([](const VARIANT& circle) {
    std::vector<unsigned char> bytes;
    EXPECT_EQ(workbench::variant_to_byte_array(&circle, &bytes),
              DISP_E_TYPEMISMATCH);
    EXPECT_TRUE(bytes.empty());
  });
}

TEST(ReferencesInACircle, AreNoArray) {
  for_each_circle([](const VARIANT& circle) {
    InterfacePtr<IZIRDBParameters> list;
    EXPECT_EQ(workbench::from_array(&circle, &list), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(parameters::count_of(list), 0);
  });
}

TEST(ReferencesInACircle, AreNoIndexOfAField) {
  const auto recordset = recordsets::numbered(1);
  const auto fields = recordsets::fields_of(recordset);
  for_each_circle([&](VARIANT& circle) {
    const auto [result, field] = recordsets::item_of(fields, circle);
    EXPECT_EQ(result, E_INVALIDARG);
    EXPECT_FALSE(field);
    expect_exception(
        call_with(dispatch_of(fields.get()).get(), DISPID_ZIRDB_FIELDS_ITEM,
                  DISPATCH_PROPERTYGET, circle),
        E_INVALIDARG, L"ZIRDB.Fields", nullptr);
    for (const DISPID member :
         {DISPID{DISPID_VALUE}, DISPID{DISPID_ZIRDB_RECORDSET_FIELDS}}) {
      expect_exception(call_with(dispatch_of(recordset.get()).get(), member,
                                 DISPATCH_METHOD, circle),
                       E_INVALIDARG, L"ZIRDB.Fields", nullptr);
    }
  });
}

TEST(ReferencesInACircle, AreNoIndexOfAParameter) {
  const auto list = parameters::list_with({1});
  for_each_circle([&](VARIANT& circle) {
    const auto [result, parameter] = component::received<IZIRDBParameter>(
        [&](IZIRDBParameter** out) { return list->Item(circle, out); });
    EXPECT_EQ(result, E_INVALIDARG);
    EXPECT_FALSE(parameter);
    expect_exception(
        call_with(dispatch_of(list.get()).get(), DISPID_ZIRDB_PARAMETERS_ITEM,
                  DISPATCH_METHOD, circle),
        E_INVALIDARG, L"ZIRDB.Parameters", nullptr);
  });
}

TEST(ReferencesInACircle, ArePutIntoNoPropertyButTheValue) {
  const auto parameter = workbench::parameter(L"p", 202, 1, 5, _variant_t(1));
  const Record before = parameters::record_of(parameter.get());
  for_each_circle([&](VARIANT& circle) {
    for (const DISPID member :
         {DISPID_ZIRDB_PARAMETER_NAME, DISPID_ZIRDB_PARAMETER_TYPE,
          DISPID_ZIRDB_PARAMETER_DIRECTION, DISPID_ZIRDB_PARAMETER_SIZE}) {
      expect_refused(call_with(dispatch_of(parameter.get()).get(), member,
                               DISPATCH_PROPERTYPUT, circle),
                     DISP_E_TYPEMISMATCH);
    }
    EXPECT_EQ(parameters::record_of(parameter.get()), before);
  });
}

TEST(ReferencesInACircle, AreNoObject) {
  const auto list = parameters::list_with({1});
  const auto recordset = recordsets::numbered(1);
  for_each_circle([&](VARIANT& circle) {
    expect_refused(
        call_with(dispatch_of(list.get()).get(), DISPID_ZIRDB_PARAMETERS_APPEND,
                  DISPATCH_METHOD, circle),
        DISP_E_TYPEMISMATCH);
    EXPECT_EQ(parameters::count_of(list), 1);
    expect_refused(
        call_with(dispatch_of(recordset.get()).get(),
                  DISPID_ZIRDB_RECORDSET_FOREACH, DISPATCH_METHOD, circle),
        DISP_E_TYPEMISMATCH);
    EXPECT_EQ(recordsets::where(recordset), "row 1");
  });
}

// A value is stored as it comes, and judged when it is sent.
TEST(ReferencesInACircle, AreSentAsNull) {
  for (const long type : parameters::kAcceptedTypes) {
    SCOPED_TRACE(type);
    for_each_circle([&](VARIANT& circle) {
      const auto parameter = parameters::parameter_with(_variant_t(1), type);
      EXPECT_EQ(parameter->put_Value(circle), S_OK);
      EXPECT_EQ(kind_sent_for(parameter.get()), ZirdbOdbcValueKind::Null);
      EXPECT_EQ(parameter->put_Value(_variant_t(1)), S_OK);
      expect_refused(
          call_with(dispatch_of(parameter.get()).get(),
                    DISPID_ZIRDB_PARAMETER_VALUE, DISPATCH_PROPERTYPUT, circle),
          S_OK);
      EXPECT_EQ(kind_sent_for(parameter.get()), ZirdbOdbcValueKind::Null);
    });
  }
}

TEST(ReferencesInACircle, AreAnEmptyElementOfAnArray) {
  for_each_circle([](const VARIANT& circle) {
    const _variant_t array = array_of(circle);
    InterfacePtr<IZIRDBParameters> list;
    EXPECT_EQ(workbench::from_array(&array, &list), S_OK);
    EXPECT_EQ(parameters::records_of(list),
              (std::vector<Record>{{L"p1", 20, 3, 0, describe(VARIANT())}}));
  });
}

// ---------------------------------------------------------------------------
// References in a line
// ---------------------------------------------------------------------------

constexpr std::size_t kLengths[] = {1,  2,  7,  8,   9,   15,  16,
                                    17, 63, 64, 100, 127, 128, 1000};

TEST(ReferencesInALine, AreFollowedToANumber) {
  _variant_t end(42);
  for (const std::size_t length : kLengths) {
    const Chain line(&end, length);
    long long number = 0;
    EXPECT_EQ(workbench::variant_to_long_long(&line.front(), &number), S_OK);
    EXPECT_EQ(number, 42) << length;
  }
}

TEST(ReferencesInALine, AreFollowedToAText) {
  _variant_t end(L"text");
  for (const std::size_t length : kLengths) {
    const Chain line(&end, length);
    _bstr_t text;
    EXPECT_EQ(workbench::variant_to_bstr_value(&line.front(), &text), S_OK);
    EXPECT_STREQ(text.m_s, L"text") << length;
    EXPECT_EQ(kind_sent_for(parameters::parameter_with(line.front()).get()),
              ZirdbOdbcValueKind::Text)
        << length;
  }
}

TEST(ReferencesInALine, AreFollowedToBytes) {
  _variant_t end = parameters::bytes_value({1, 2});
  for (const std::size_t length : kLengths) {
    const Chain line(&end, length);
    std::vector<unsigned char> bytes;
    EXPECT_EQ(workbench::variant_to_byte_array(&line.front(), &bytes), S_OK);
    EXPECT_EQ(bytes, (std::vector<unsigned char>{1, 2})) << length;
  }
}

TEST(ReferencesInALine, AreFollowedToAnArrayAndToItsElements) {
  _variant_t element(L"text");
  for (const std::size_t length : kLengths) {
    const Chain to_element(&element, length);
    _variant_t array = array_of(to_element.front());
    const Chain to_array(&array, length);
    InterfacePtr<IZIRDBParameters> list;
    EXPECT_EQ(workbench::from_array(&to_array.front(), &list), S_OK);
    EXPECT_EQ(parameters::values_of(list),
              std::vector<std::string>{describe(element)})
        << length;
  }
}

TEST(ReferencesInALine, AreFollowedToAnIndex) {
  const auto fields = recordsets::fields_of(recordsets::numbered(1));
  const auto list = parameters::list_with({7, 8});
  _variant_t end(1);
  for (const std::size_t length : kLengths) {
    const Chain line(&end, length);
    const auto [result, field] = recordsets::item_of(fields, line.front());
    EXPECT_EQ(result, S_OK) << length;
    ASSERT_TRUE(field);
    EXPECT_EQ(recordsets::name_of(field).second, L"text") << length;
    EXPECT_EQ(parameters::record_of(
                  parameters::item(list, _variant_t(line.front())).get())
                  .value,
              describe(_variant_t(8)))
        << length;
  }
}

// ---------------------------------------------------------------------------
// Objects that let go
// ---------------------------------------------------------------------------

/// Runs what it is told when it is asked for an IDispatch, and then hands out
/// another object, or none.
class Asked final : public IUnknown {
 public:
  Asked(std::function<void()> when_asked, IDispatch* answer)
      : when_asked_(std::move(when_asked)), answer_(answer) {}

  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid != IID_IDispatch) return E_NOINTERFACE;
    when_asked_();
    return answer_ != nullptr ? answer_->QueryInterface(riid, object)
                              : E_NOINTERFACE;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }

  std::uint32_t references() const { return references_; }

 private:
  std::function<void()> when_asked_;
  IDispatch* answer_;
  std::uint32_t references_ = 1;
};

TEST(ForEachOverAnObject, ThatLetsTheRecordsetGoWhileItIsAskedVisitsItsRows) {
  auto recordset = dispatch_of(recordsets::numbered(3).get());
  recordsets::Visitor visitor;
  const _variant_t callback = visitor.argument();
  Asked asked([&] { recordset = {}; }, callback.pdispVal);
  expect_refused(
      component::method(recordset.get(), DISPID_ZIRDB_RECORDSET_FOREACH,
                        {static_cast<IUnknown*>(&asked)}),
      S_OK);
  EXPECT_FALSE(recordset);
  EXPECT_EQ(visitor.rows(), (recordsets::Rows{1, 2, 3}));
  EXPECT_EQ(asked.references(), 1U);
  EXPECT_EQ(workbench::objects_alive(), 0U);
}

TEST(ForEachOverAnObject, ThatLetsAClosedRecordsetGoWhileItIsAskedFails) {
  auto closed = recordsets::numbered(3);
  closed->Close();
  auto recordset = dispatch_of(closed.get());
  closed = {};
  recordsets::Visitor visitor;
  const _variant_t callback = visitor.argument();
  Asked asked([&] { recordset = {}; }, callback.pdispVal);
  expect_exception(
      component::method(recordset.get(), DISPID_ZIRDB_RECORDSET_FOREACH,
                        {static_cast<IUnknown*>(&asked)}),
      component::kClosedCode, recordsets::kSource, component::kClosedText);
  EXPECT_TRUE(visitor.rows().empty());
}

TEST(ForEachOverAnObject, ThatLetsTheRecordsetGoAndCannotBeCalledIsRefused) {
  auto recordset = dispatch_of(recordsets::numbered(3).get());
  Asked asked([&] { recordset = {}; }, nullptr);
  expect_refused(
      component::method(recordset.get(), DISPID_ZIRDB_RECORDSET_FOREACH,
                        {static_cast<IUnknown*>(&asked)}),
      DISP_E_TYPEMISMATCH);
  EXPECT_FALSE(recordset);
  EXPECT_EQ(asked.references(), 1U);
  EXPECT_EQ(workbench::objects_alive(), 0U);
}

}  // namespace
