// SPDX-License-Identifier: MIT
//
// What threads share: the references of an object, the library's counts of
// objects and locks. And what they do not: the error of a failed call. Meant
// for ThreadSanitizer as much as for its assertions.

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "support/component.h"
#include "support/component_host.h"
#include "support/threads.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using component::dispatch_of;
using component::expect_exception;
using component::factory_of;
using component::fields_of;
using component::kRecordsetSource;
using component::method;
using component::references_of;
using component::standalone_recordset;
using threads::in_threads;
using threads::kThreads;

constexpr int kRounds = 500;
/// For what goes wrong only when threads meet at one instruction.
constexpr int kManyRounds = 10 * kRounds;

/// A member that fails, by the number of the thread that calls it.
struct Failing {
  DISPID member;
  HRESULT code;
  const wchar_t* text;
};
constexpr std::array<Failing, kThreads> kFailing = {{
    {DISPID_ZIRDB_RECORDSET_MOVENEXT, component::kNoCurrentRecordCode,
     component::kNoCurrentRecordText},
    {DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, component::kNotInThisContextCode,
     component::kNotInThisContextText},
    {DISPID_ZIRDB_RECORDSET_MOVELAST, component::kNotBackwardCode,
     component::kNotBackwardText},
    {DISPID_ZIRDB_RECORDSET_CLOSE, component::kClosedCode,
     component::kClosedText},
}};

TEST(ComponentThreads, EachFailsWithATextOfItsOwn) {
  in_threads([](int number) {
    const Failing& failing = kFailing[static_cast<std::size_t>(number)];
    const auto recordset = standalone_recordset();
    if (failing.code == component::kClosedCode) recordset->Close();
    const auto dispatch = dispatch_of(recordset.get());
    for (int i = 0; i < kManyRounds; ++i) {
      expect_exception(method(dispatch.get(), failing.member), failing.code,
                       kRecordsetSource, failing.text);
    }
  });
}

// An index that leads nowhere fails without a text, which one of another thread
// must not lend it.
TEST(ComponentThreads, AFailureWithoutATextBorrowsNone) {
  in_threads([](int number) {
    const auto recordset = standalone_recordset();
    const auto fields = fields_of(recordset.get());
    const auto of_fields = dispatch_of(fields.get());
    _variant_t nowhere;
    nowhere.vt = VT_BYREF | VT_VARIANT;
    for (int i = 0; i < kManyRounds; ++i) {
      if (number % 2 == 0) {
        EXPECT_EQ(recordset->MoveNext(), component::kNoCurrentRecordCode);
      } else {
        expect_exception(
            method(of_fields.get(), DISPID_ZIRDB_FIELDS_ITEM, {nowhere}),
            E_INVALIDARG, L"ZIRDB.Fields", nullptr);
      }
    }
  });
}

/// Calls and lets go of a recordset when its thread ends.
struct UntilTheThreadEnds {
  UntilTheThreadEnds() = default;
  UntilTheThreadEnds(const UntilTheThreadEnds&) = delete;
  UntilTheThreadEnds& operator=(const UntilTheThreadEnds&) = delete;
  ~UntilTheThreadEnds() {
    if (!recordset) return;
    EXPECT_EQ(recordset->MovePrevious(), component::kNotInThisContextCode);
    const component::Answer answer = method(dispatch_of(recordset.get()).get(),
                                            DISPID_ZIRDB_RECORDSET_MOVELAST);
    EXPECT_EQ(answer.result, DISP_E_EXCEPTION);
    EXPECT_EQ(answer.code, component::kNotBackwardCode);
  }
  InterfacePtr<IZIRDBRecordset> recordset;
};
thread_local UntilTheThreadEnds g_until_the_thread_ends;

// What a thread began to hold before its first failure is destroyed after the
// record of that failure.
TEST(ComponentThreads, AnObjectMayOutliveTheErrorsOfItsThread) {
  std::thread([] {
    g_until_the_thread_ends.recordset = standalone_recordset();
    EXPECT_EQ(g_until_the_thread_ends.recordset->MoveNext(),
              component::kNoCurrentRecordCode);
  }).join();
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(ComponentThreads, ReferencesOfOneObjectAreCountedByAll) {
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  const auto of_recordset = dispatch_of(recordset.get());
  const auto of_fields = dispatch_of(fields.get());
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  const std::array<IUnknown*, 5> objects = {recordset.get(), of_recordset.get(),
                                            fields.get(), of_fields.get(),
                                            factory.get()};
  const std::array<std::uint32_t, 5> before = {3, 3, 2, 2, 1};
  in_threads([&](int) {
    for (int i = 0; i < kManyRounds; ++i) {
      for (IUnknown* const object : objects) object->AddRef();
      for (IUnknown* const object : objects) object->Release();
      for (IUnknown* const object : objects) {
        InterfacePtr<IUnknown>::share(object).query<IUnknown>(IID_IUnknown);
      }
    }
  });
  for (std::size_t i = 0; i < objects.size(); ++i) {
    EXPECT_EQ(references_of(objects[i]), before[i]) << i;
  }
}

// Whichever thread lets go last destroys the object, once.
TEST(ComponentThreads, TheLastOfThemDestroysTheObject) {
  for (int round = 0; round < kRounds / 10; ++round) {
    auto recordset = standalone_recordset();
    auto fields = fields_of(recordset.get());
    std::array<IUnknown*, kThreads> held = {recordset.get(), fields.get(),
                                            recordset.get(), fields.get()};
    for (IUnknown* const object : held) object->AddRef();
    recordset = {};
    fields = {};
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    in_threads(
        [&](int number) { held[static_cast<std::size_t>(number)]->Release(); });
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
  }
}

TEST(ComponentThreads, ObjectsComeAndGo) {
  in_threads([](int number) {
    for (int i = 0; i < kRounds; ++i) {
      const auto recordset = standalone_recordset();
      EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
      const auto fields = fields_of(recordset.get());
      long count = 77;
      EXPECT_EQ(fields->get_Count(&count), S_OK);
      EXPECT_EQ(count, 0);
      const component::Answer answer = method(
          dispatch_of(recordset.get()).get(), DISPID_ZIRDB_RECORDSET_CLOSE);
      EXPECT_EQ(answer.result, S_OK) << number;
    }
  });
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(ComponentThreads, ObjectsAreRefusedAtTheSameTime) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  in_threads([&](int) {
    for (int i = 0; i < kManyRounds; ++i) {
      InterfacePtr<IUnknown> object;
      EXPECT_EQ(object.receive([&](void** out) {
        return factory->CreateInstance(nullptr, IID_IZIRDBFields, out);
      }),
                E_NOINTERFACE);
    }
  });
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
  EXPECT_EQ(references_of(factory.get()), 1U);
}

TEST(ComponentThreads, LocksAndUnlocksBalance) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  in_threads([&](int) {
    for (int i = 0; i < kRounds; ++i) {
      EXPECT_EQ(factory->LockServer(1), S_OK);
      EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
      EXPECT_EQ(factory->LockServer(0), S_OK);
    }
  });
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

// Were the count tested and lowered in two steps, two threads would take it
// below zero, and the library would stay locked for good.
TEST(ComponentThreads, UnlocksTooManyAreIgnoredAtTheSameTime) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  in_threads([&](int) {
    for (int i = 0; i < 10 * kManyRounds; ++i) {
      factory->LockServer(1);
      factory->LockServer(0);
      factory->LockServer(0);
    }
  });
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

}  // namespace
