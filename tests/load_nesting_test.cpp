// SPDX-License-Identifier: MIT
//
// Values as deep as nobody nests them: the stack must not be what runs out.

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/load_database.h"
#include "support/long_form.h"
#include "support/scripting.h"
#include "support/values.h"
#include "zir.h"

namespace {

using scripting::Object;
using values::plain;

/// Ten times as deep as calls could nest on the stack below, and a hundred.
const std::size_t kDeep = zirdb_test::short_or_long<std::size_t>(20000, 200000);
constexpr std::size_t kLong = 1000000;

/// On a stack that is as small as threads have it.
void on_a_small_stack(const std::function<void()>& body) {
  constexpr std::size_t kStack = std::size_t{256} << 10;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStack);
  pthread_t thread{};
  const auto call = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  const int created = pthread_create(&thread, &attributes, call,
                                     const_cast<std::function<void()>*>(&body));
  pthread_attr_destroy(&attributes);
  if (created != 0) throw std::runtime_error("no thread");
  pthread_join(thread, nullptr);
}

/// An array with one element, which is an array with one element, ...
VARIANT nested(std::size_t depth) {
  VARIANT value = plain(VT_I8, 7);
  for (std::size_t i = 0; i < depth; ++i) {
    SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, 0, 2);
    if (array == nullptr) throw std::runtime_error("no array");
    // Something on both sides of it.
    VARIANT* const elements = static_cast<VARIANT*>(array->pvData);
    elements[i % 2] = value;
    elements[1 - i % 2] = plain(VT_I4, i);
    value = plain(VT_ARRAY | VT_VARIANT, 0);
    value.parray = array;
  }
  return value;
}

/// How deep `value` is nested as `nested` made it; 0 when anything is missing.
std::size_t depth_of(const VARIANT& value, std::size_t depth) {
  const VARIANT* at = &value;
  for (std::size_t i = depth; i-- > 0;) {
    if (at->vt != (VT_ARRAY | VT_VARIANT) || at->parray == nullptr) return 0;
    const auto* const elements = static_cast<VARIANT*>(at->parray->pvData);
    const VARIANT& beside = elements[1 - i % 2];
    if (beside.vt != VT_I4 || beside.lVal != static_cast<LONG>(i)) return 0;
    at = &elements[i % 2];
  }
  return at->vt == VT_I8 && at->llVal == 7 ? depth : 0;
}

class LoadNesting : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(load::handles_live(), 0U); }

  static Object opened() {
    Object connection = scripting::new_connection();
    connection.call("Open", "any");
    return connection;
  }
};

TEST_F(LoadNesting, ArraysInArraysAreCopiedAndClearedToTheLast) {
  on_a_small_stack([] {
    VARIANT deep = nested(kDeep);
    VARIANT copy{};

    EXPECT_EQ(VariantCopy(&copy, &deep), S_OK);

    EXPECT_EQ(VariantClear(&deep), S_OK);
    EXPECT_EQ(depth_of(copy, kDeep), kDeep);
    EXPECT_EQ(VariantClear(&copy), S_OK);
  });
}

TEST_F(LoadNesting, AParameterTakesAndGivesNestedArrays) {
  on_a_small_stack([] {
    const Object command = scripting::new_command();
    const Object parameter = command.call("CreateParameter", "deep");
    {
      const _variant_t deep = values::owned(nested(kDeep));
      parameter.put("Value", deep);
    }
    EXPECT_EQ(depth_of(parameter.get("Value"), kDeep), kDeep);
  });
}

// The last release of the first takes all of them along.
TEST_F(LoadNesting, ObjectsThatHoldEachOtherGoTogether) {
  on_a_small_stack([] {
    const Object command = scripting::new_command();
    Object outermost = command.call("CreateParameter");
    for (std::size_t i = 0; i < kDeep; ++i) {
      const Object holder = command.call("CreateParameter");
      holder.put("Value", outermost);
      outermost = holder;
    }
    outermost.release();
  });
}

TEST_F(LoadNesting, NestedArraysAreNoValuesOfAStatement) {
  on_a_small_stack([] {
    const Object connection = opened();
    const _variant_t deep = values::owned(nested(kDeep));
    VARIANT elements = deep;

    const scripting::Error as_argument =
        scripting::error_of([&] { connection("echo", 1, deep); });
    const scripting::Error as_elements = scripting::error_of(
        [&] { connection("echo", values::reference_to(&elements)); });

    EXPECT_EQ(as_argument.code(), E_INVALIDARG);
    EXPECT_EQ(as_elements.code(), E_INVALIDARG);
  });
}

/// References to references to ... `end`.
std::vector<VARIANT> chain_to(VARIANT* end) {
  std::vector<VARIANT> links(kLong);
  for (std::size_t i = 0; i < kLong; ++i) {
    links[i] = values::reference_to(i + 1 < kLong ? &links[i + 1] : end);
  }
  return links;
}

TEST_F(LoadNesting, AChainOfReferencesLeadsToItsEnd) {
  on_a_small_stack([] {
    VARIANT end = plain(VT_I8, 7);
    const std::vector<VARIANT> chain = chain_to(&end);
    const Object connection = opened();
    const Object row = connection("echo", chain[0]);
    EXPECT_EQ(scripting::value_of(row, "c0"), "I8 7");

    // The index of a field, too.
    end = plain(VT_I4, 0);
    EXPECT_EQ(scripting::shown(Object(row(chain[0])).get("Name")), "BSTR c0");
  });
}

// As an argument it is what a reference that leads nowhere is: the number 0.
TEST_F(LoadNesting, ACircleOfReferencesLeadsNowhere) {
  on_a_small_stack([] {
    VARIANT end{};
    std::vector<VARIANT> circle = chain_to(&end);
    const Object connection = opened();
    // Back to where it began, and to where it never was.
    for (const std::size_t to : {std::size_t{0}, kLong / 2, kLong - 1}) {
      circle.back() = values::reference_to(&circle[to]);

      const Object row = connection("echo", circle[0]);

      EXPECT_EQ(scripting::value_of(row, "c0"), "I8 0");
      EXPECT_EQ(scripting::error_of([&] { row(circle[0]); }).code(),
                E_INVALIDARG);
    }
  });
}

}  // namespace
