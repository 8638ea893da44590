// SPDX-License-Identifier: MIT
//
// From the library's entry points to an object: which factory a class id or a
// name leads to, what a factory makes and refuses, when the library may be
// unloaded, what every object answers to IUnknown, and what the recordset that
// a factory makes can do.
//
// Sections: entry points; factories; making objects; unloading; interfaces and
// references of objects; the standalone recordset.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/connections.h"
#include "support/objects.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using component::dispatch_of;
using component::factory_of;
using component::fields_of;
using component::kRecordsetSource;
using component::Out;
using component::query;
using component::references_of;
using component::standalone_recordset;

/// The wide name as DllGetClassObject takes it.
void* as_name(const wchar_t* name) { return const_cast<wchar_t*>(name); }

bool makes(IClassFactory* factory, REFIID riid) {
  InterfacePtr<IUnknown> object;
  return factory != nullptr && object.receive([&](void** out) {
    return factory->CreateInstance(nullptr, riid, out);
  }) == S_OK;
}

/// The three classes, each with the interface of its own.
struct Class {
  const CLSID& clsid;
  const IID& own;
};
const Class kClasses[] = {
    {CLSID_ZIRDBConnection, IID_IZIRDBConnection},
    {CLSID_ZIRDBCommand, IID_IZIRDBCommand},
    {CLSID_ZIRDBRecordset, IID_IZIRDBRecordset},
};

// ---------------------------------------------------------------------------
// Entry points
// ---------------------------------------------------------------------------

TEST(EntryPoint, GivesAFactoryForEveryClass) {
  for (const CLSID* const clsid :
       {&CLSID_ZIRDBConnection, &CLSID_ZIRDBCommand, &CLSID_ZIRDBRecordset}) {
    for (const IID* const iid : {&IID_IUnknown, &IID_IClassFactory}) {
      Out factory;
      EXPECT_EQ(DllGetClassObject(*clsid, *iid, factory.address()), S_OK);
      ASSERT_NE(factory.object(), nullptr);
      ASSERT_FALSE(factory.untouched());
      EXPECT_EQ(references_of(static_cast<IUnknown*>(factory.object())), 1U);
    }
  }
}

TEST(EntryPoint, AClassIdLeadsToItsClass) {
  for (const Class& asked : kClasses) {
    for (const Class& each : kClasses) {
      EXPECT_EQ(makes(factory_of(asked.clsid).get(), each.own),
                &asked == &each);
    }
  }
}

TEST(EntryPoint, EveryCallMakesAFactoryOfItsOwn) {
  const auto first = factory_of(CLSID_ZIRDBRecordset);
  const auto second = factory_of(CLSID_ZIRDBRecordset);

  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(references_of(first.get()), 1U);
}

TEST(EntryPoint, FindsAClassByNameWhateverItsCase) {
  const struct {
    const wchar_t* name;
    const IID& own;
  } rows[] = {
      {L"Connection", IID_IZIRDBConnection},
      {L"connection", IID_IZIRDBConnection},
      {L"CONNECTION", IID_IZIRDBConnection},
      {L"Command", IID_IZIRDBCommand},
      {L"command", IID_IZIRDBCommand},
      {L"cOMMAND", IID_IZIRDBCommand},
      {L"Recordset", IID_IZIRDBRecordset},
      {L"recordset", IID_IZIRDBRecordset},
      {L"RECORDSET", IID_IZIRDBRecordset},
      {L"rEcOrDsEt", IID_IZIRDBRecordset},
  };
  for (const auto& row : rows) {
    for (const IID* const iid : {&IID_IUnknown, &IID_IClassFactory}) {
      Out factory(as_name(row.name));
      EXPECT_EQ(DllGetClassObject(CLSID_NULL, *iid, factory.address()), S_OK)
          << row.name;
      ASSERT_NE(factory.object(), nullptr) << row.name;
      ASSERT_FALSE(factory.untouched()) << row.name;
      auto* const made = static_cast<IClassFactory*>(factory.object());
      EXPECT_EQ(references_of(made), 1U) << row.name;
      for (const Class& each : kClasses) {
        EXPECT_EQ(makes(made, each.own), each.own == row.own) << row.name;
      }
    }
  }
}

TEST(EntryPoint, RefusesNamesThatNoClassHas) {
  for (const wchar_t* const name :
       {static_cast<const wchar_t*>(nullptr), L"", L"Record", L"Recordsets",
        L"Recordset ", L" Recordset", L"ZIRDB.Recordset", L"Fields", L"Field",
        L"Parameters", L"Parameter", L"Connectio", L"Commands",
        L"{8EEDA5E6-0575-4F26-B43A-ED25F95E993B}"}) {
    Out factory(as_name(name));
    EXPECT_EQ(
        DllGetClassObject(CLSID_NULL, IID_IClassFactory, factory.address()),
        CLASS_E_CLASSNOTAVAILABLE)
        << (name == nullptr ? L"no name" : name);
    EXPECT_EQ(factory.object(), nullptr);
  }
}

TEST(EntryPoint, RefusesIdsThatNoClassHas) {
  std::vector<CLSID> others = {IID_IZIRDBRecordset, IID_IZIRDBConnection,
                               IID_IUnknown, IID_IClassFactory};
  for (const CLSID& clsid :
       {CLSID_ZIRDBConnection, CLSID_ZIRDBCommand, CLSID_ZIRDBRecordset}) {
    for (std::size_t at = 0; at < sizeof(CLSID); ++at) {
      CLSID other = clsid;
      void* const start = &other;
      static_cast<unsigned char*>(start)[at] ^= 1;
      others.push_back(other);
    }
  }
  for (const CLSID& clsid : others) {
    Out factory;
    EXPECT_EQ(DllGetClassObject(clsid, IID_IClassFactory, factory.address()),
              CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(factory.object(), nullptr);
  }
}

TEST(EntryPoint, FactoriesHaveNoOtherInterface) {
  for (const IID* const iid :
       {&IID_IDispatch, &IID_NULL, &IID_IEnumVARIANT, &IID_IZIRDBRecordset}) {
    Out by_id;
    EXPECT_EQ(DllGetClassObject(CLSID_ZIRDBRecordset, *iid, by_id.address()),
              E_NOINTERFACE);
    EXPECT_EQ(by_id.object(), nullptr);
    Out by_name(as_name(L"Recordset"));
    EXPECT_EQ(DllGetClassObject(CLSID_NULL, *iid, by_name.address()),
              E_NOINTERFACE);
    EXPECT_EQ(by_name.object(), nullptr);
  }
}

TEST(EntryPoint, LooksForTheClassBeforeTheInterface) {
  Out by_id;
  EXPECT_EQ(
      DllGetClassObject(IID_IZIRDBRecordset, IID_IDispatch, by_id.address()),
      CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(by_id.object(), nullptr);
  Out by_name(as_name(L"Nothing"));
  EXPECT_EQ(DllGetClassObject(CLSID_NULL, IID_IDispatch, by_name.address()),
            CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(by_name.object(), nullptr);
}

TEST(EntryPoint, NeedsAPlaceForTheFactoryBeforeAnythingElse) {
  for (const CLSID* const clsid :
       {&CLSID_NULL, &CLSID_ZIRDBRecordset, &IID_IZIRDBRecordset}) {
    for (const IID* const iid : {&IID_IClassFactory, &IID_IDispatch}) {
      EXPECT_EQ(DllGetClassObject(*clsid, *iid, nullptr), E_INVALIDARG);
    }
  }
}

// ---------------------------------------------------------------------------
// Factories
// ---------------------------------------------------------------------------

TEST(ClassFactory, AnswersIUnknownAndIClassFactory) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  for (const IID* const iid : {&IID_IUnknown, &IID_IClassFactory}) {
    Out found;
    EXPECT_EQ(factory->QueryInterface(*iid, found.address()), S_OK);
    EXPECT_EQ(found.object(), static_cast<void*>(factory.get()));
    EXPECT_EQ(references_of(factory.get()), 2U);
  }
  EXPECT_EQ(references_of(factory.get()), 1U);
}

TEST(ClassFactory, RefusesEveryOtherInterface) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  for (const IID* const iid : {&IID_NULL, &IID_IDispatch, &IID_IZIRDBRecordset,
                               &IID_IEnumVARIANT, &CLSID_ZIRDBRecordset}) {
    Out found;
    EXPECT_EQ(factory->QueryInterface(*iid, found.address()), E_NOINTERFACE);
    EXPECT_EQ(found.object(), nullptr);
  }
  EXPECT_EQ(references_of(factory.get()), 1U);
}

TEST(ClassFactory, NeedsAPlaceForAnInterface) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  EXPECT_EQ(factory->QueryInterface(IID_IUnknown, nullptr), E_INVALIDARG);
  EXPECT_EQ(factory->QueryInterface(IID_NULL, nullptr), E_INVALIDARG);
  EXPECT_EQ(references_of(factory.get()), 1U);
}

TEST(ClassFactory, ReportsItsNewCount) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  EXPECT_EQ(factory->AddRef(), 2U);
  EXPECT_EQ(factory->AddRef(), 3U);
  EXPECT_EQ(factory->Release(), 2U);
  EXPECT_EQ(factory->Release(), 1U);
}

TEST(ClassFactory, TheLastReleaseReportsZero) {
  auto factory = factory_of(CLSID_ZIRDBRecordset);
  EXPECT_EQ(factory.detach()->Release(), 0U);
}

// ---------------------------------------------------------------------------
// Making objects
// ---------------------------------------------------------------------------

TEST(CreateInstance, GivesAnyInterfaceOfTheClass) {
  for (const Class& each : kClasses) {
    const auto factory = factory_of(each.clsid);
    for (const IID* const iid : {&IID_IUnknown, &IID_IDispatch, &each.own}) {
      Out made;
      EXPECT_EQ(factory->CreateInstance(nullptr, *iid, made.address()), S_OK);
      ASSERT_NE(made.object(), nullptr);
      ASSERT_FALSE(made.untouched());
      auto* const object = static_cast<IUnknown*>(made.object());
      EXPECT_EQ(references_of(object), 1U);
      EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
      // Which of the object's two tables it is.
      const auto own = query<IUnknown>(object, each.own);
      const auto dispatch = dispatch_of(object);
      ASSERT_TRUE(own && dispatch);
      EXPECT_EQ(made.object(), *iid == IID_IDispatch
                                   ? static_cast<void*>(dispatch.get())
                                   : static_cast<void*>(own.get()));
    }
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
  }
}

TEST(CreateInstance, EveryCallMakesAnother) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  Out first;
  Out second;
  EXPECT_EQ(
      factory->CreateInstance(nullptr, IID_IZIRDBRecordset, first.address()),
      S_OK);
  EXPECT_EQ(
      factory->CreateInstance(nullptr, IID_IZIRDBRecordset, second.address()),
      S_OK);

  EXPECT_NE(first.object(), second.object());
  EXPECT_EQ(references_of(factory.get()), 1U);
}

TEST(CreateInstance, AnObjectOutlivesItsFactory) {
  const auto recordset = standalone_recordset();
  long state = 0;
  EXPECT_EQ(recordset->get_State(&state), S_OK);
  EXPECT_EQ(state, ZIRDB_STATE_OPEN);
}

TEST(CreateInstance, AnObjectWithoutTheInterfaceIsDestroyed) {
  for (const Class& each : kClasses) {
    const auto factory = factory_of(each.clsid);
    for (const IID* const iid :
         {&IID_NULL, &IID_IClassFactory, &IID_IZIRDBConnection,
          &IID_IZIRDBCommand, &IID_IZIRDBRecordset, &IID_IZIRDBFields,
          &IID_IEnumVARIANT, &each.clsid}) {
      if (*iid == each.own) continue;
      Out made;
      EXPECT_EQ(factory->CreateInstance(nullptr, *iid, made.address()),
                E_NOINTERFACE);
      EXPECT_EQ(made.object(), nullptr);
      EXPECT_EQ(DllCanUnloadNow(), S_OK);
    }
  }
}

TEST(CreateInstance, NeverAggregatesWhateverElseIsWrong) {
  objects::Unknown outer;
  for (const CLSID* const clsid :
       {&CLSID_ZIRDBConnection, &CLSID_ZIRDBCommand, &CLSID_ZIRDBRecordset}) {
    const auto factory = factory_of(*clsid);
    for (const IID* const iid : {&IID_IUnknown, &IID_IClassFactory}) {
      EXPECT_EQ(factory->CreateInstance(&outer, *iid, nullptr),
                CLASS_E_NOAGGREGATION);
      Out made;
      EXPECT_EQ(factory->CreateInstance(&outer, *iid, made.address()),
                CLASS_E_NOAGGREGATION);
      EXPECT_TRUE(made.untouched());
    }
  }
  EXPECT_EQ(outer.references(), 1U);
}

TEST(CreateInstance, NeedsAPlaceForTheObject) {
  for (const CLSID* const clsid :
       {&CLSID_ZIRDBConnection, &CLSID_ZIRDBCommand, &CLSID_ZIRDBRecordset}) {
    const auto factory = factory_of(*clsid);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, nullptr),
              E_INVALIDARG);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_NULL, nullptr),
              E_INVALIDARG);
  }
}

// ---------------------------------------------------------------------------
// Unloading
// ---------------------------------------------------------------------------

TEST(Unloading, IsFineAtFirst) { EXPECT_EQ(DllCanUnloadNow(), S_OK); }

TEST(Unloading, IsNotHeldUpByFactories) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(Unloading, WaitsForEveryObject) {
  auto first = standalone_recordset();
  auto second = standalone_recordset();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  first = {};
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  second = {};
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(Unloading, WaitsForTheFieldsOfAReleasedRecordset) {
  auto recordset = standalone_recordset();
  auto fields = fields_of(recordset.get());
  recordset = {};
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  fields = {};
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(Unloading, AClosedRecordsetIsStillAlive) {
  const auto recordset = standalone_recordset();
  EXPECT_EQ(recordset->Close(), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
}

TEST(ServerLock, AnythingButZeroLocks) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  for (const BOOL lock : {1, -1, 2, 0x100, 0x10000, INT_MIN, INT_MAX}) {
    EXPECT_EQ(factory->LockServer(lock), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE) << lock;
    EXPECT_EQ(factory->LockServer(0), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_OK) << lock;
  }
}

TEST(ServerLock, NeedsAsManyUnlocksAsThereWereLocks) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  constexpr int kTimes = 3;
  for (int i = 0; i < kTimes; ++i) factory->LockServer(1);
  for (int i = 0; i < kTimes; ++i) {
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE) << i;
    factory->LockServer(0);
  }
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(ServerLock, AnUnlockTooManyIsIgnored) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  EXPECT_EQ(factory->LockServer(0), S_OK);
  EXPECT_EQ(factory->LockServer(0), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);

  // A count below zero would swallow this one.
  EXPECT_EQ(factory->LockServer(1), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  EXPECT_EQ(factory->LockServer(0), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(ServerLock, IsTheLibrarysNotTheFactorys) {
  EXPECT_EQ(factory_of(CLSID_ZIRDBConnection)->LockServer(1), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  EXPECT_EQ(factory_of(CLSID_ZIRDBCommand)->LockServer(0), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST(ServerLock, AndObjectsHoldTheLibrarySeparately) {
  const auto factory = factory_of(CLSID_ZIRDBRecordset);
  auto recordset = standalone_recordset();
  EXPECT_EQ(factory->LockServer(1), S_OK);
  recordset = {};
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  recordset = standalone_recordset();
  EXPECT_EQ(factory->LockServer(0), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  // Nor does an unlock take away from the objects.
  EXPECT_EQ(factory->LockServer(0), S_OK);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
}

// ---------------------------------------------------------------------------
// Interfaces and references of objects
// ---------------------------------------------------------------------------

/// A class of objects, and one of them.
struct Kind {
  const char* name;
  const IID& own;
  InterfacePtr<IZIRDBRecordset> recordset;
  InterfacePtr<IUnknown> object;
};

/// One object of every class that a host gets without a database.
std::vector<Kind> kinds() {
  std::vector<Kind> kinds;
  kinds.push_back(
      {"connection",
       IID_IZIRDBConnection,
       {},
       query<IUnknown>(component::connection().get(), IID_IUnknown)});
  const auto command = component::command();
  kinds.push_back({"command",
                   IID_IZIRDBCommand,
                   {},
                   query<IUnknown>(component::command().get(), IID_IUnknown)});
  const auto [listed, parameters] = component::received<IZIRDBParameters>(
      [&](IZIRDBParameters** out) { return command->get_Parameters(out); });
  kinds.push_back({"parameters",
                   IID_IZIRDBParameters,
                   {},
                   query<IUnknown>(parameters.get(), IID_IUnknown)});
  const auto [created, parameter] =
      component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
        return command->CreateParameter(nullptr, 0, 0, 0, VARIANT{}, out);
      });
  kinds.push_back({"parameter",
                   IID_IZIRDBParameter,
                   {},
                   query<IUnknown>(parameter.get(), IID_IUnknown)});
  const auto recordset = standalone_recordset();
  kinds.push_back({"recordset",
                   IID_IZIRDBRecordset,
                   {},
                   query<IUnknown>(recordset.get(), IID_IUnknown)});
  auto owner = standalone_recordset();
  const auto fields = fields_of(owner.get());
  kinds.push_back({"fields", IID_IZIRDBFields, std::move(owner),
                   query<IUnknown>(fields.get(), IID_IUnknown)});
  return kinds;
}

TEST(ComponentObject, AnswersThreeIdentifiers) {
  for (const Kind& kind : kinds()) {
    ASSERT_TRUE(kind.object) << kind.name;
    for (const IID* const iid : {&IID_IUnknown, &kind.own, &IID_IDispatch}) {
      Out found;
      EXPECT_EQ(kind.object->QueryInterface(*iid, found.address()), S_OK)
          << kind.name;
      ASSERT_NE(found.object(), nullptr) << kind.name;
      ASSERT_FALSE(found.untouched()) << kind.name;
      EXPECT_EQ(references_of(kind.object.get()), 2U) << kind.name;
    }
    EXPECT_EQ(references_of(kind.object.get()), 1U) << kind.name;
  }
}

TEST(ComponentObject, AnswersTheSameThroughIDispatch) {
  for (const Kind& kind : kinds()) {
    const auto dispatch = dispatch_of(kind.object.get());
    ASSERT_TRUE(dispatch) << kind.name;
    for (const IID* const iid : {&IID_IUnknown, &kind.own, &IID_IDispatch}) {
      Out direct;
      Out through;
      EXPECT_EQ(kind.object->QueryInterface(*iid, direct.address()), S_OK);
      EXPECT_EQ(dispatch->QueryInterface(*iid, through.address()), S_OK);
      EXPECT_EQ(through.object(), direct.object()) << kind.name;
    }
  }
}

TEST(ComponentObject, ItsOwnInterfaceIsItsIdentity) {
  for (const Kind& kind : kinds()) {
    Out unknown;
    Out own;
    EXPECT_EQ(kind.object->QueryInterface(IID_IUnknown, unknown.address()),
              S_OK);
    EXPECT_EQ(kind.object->QueryInterface(kind.own, own.address()), S_OK);
    EXPECT_EQ(own.object(), unknown.object()) << kind.name;
    EXPECT_EQ(own.object(), static_cast<void*>(kind.object.get())) << kind.name;
  }
}

TEST(ComponentObject, LateBindingIsEightBytesBehindItsOwnInterface) {
  for (const Kind& kind : kinds()) {
    Out dispatch;
    EXPECT_EQ(kind.object->QueryInterface(IID_IDispatch, dispatch.address()),
              S_OK);
    const void* const own = kind.object.get();
    EXPECT_EQ(dispatch.object(), static_cast<const char*>(own) + 8)
        << kind.name;
  }
}

TEST(ComponentObject, RefusesEveryOtherIdentifier) {
  for (const Kind& kind : kinds()) {
    const auto dispatch = dispatch_of(kind.object.get());
    std::vector<IID> others = {
        IID_NULL,          IID_IClassFactory,    IID_IEnumVARIANT,
        IID_IErrorInfo,    CLSID_ZIRDBRecordset, IID_IZIRDBConnection,
        IID_IZIRDBCommand, IID_IZIRDBRecordset,  IID_IZIRDBFields,
        IID_IZIRDBField,   IID_IZIRDBParameters, IID_IZIRDBParameter};
    others.erase(std::remove(others.begin(), others.end(), kind.own),
                 others.end());
    for (std::size_t at = 0; at < sizeof(IID); ++at) {
      IID other = kind.own;
      void* const start = &other;
      static_cast<unsigned char*>(start)[at] ^= 0x80;
      others.push_back(other);
    }
    for (const IID& iid : others) {
      Out direct;
      Out through;
      EXPECT_EQ(kind.object->QueryInterface(iid, direct.address()),
                E_NOINTERFACE)
          << kind.name;
      EXPECT_EQ(direct.object(), nullptr) << kind.name;
      EXPECT_EQ(dispatch->QueryInterface(iid, through.address()), E_NOINTERFACE)
          << kind.name;
      EXPECT_EQ(through.object(), nullptr) << kind.name;
    }
    EXPECT_EQ(references_of(kind.object.get()), 2U) << kind.name;
  }
}

TEST(ComponentObject, NeedsAPlaceForAnInterface) {
  for (const Kind& kind : kinds()) {
    const auto dispatch = dispatch_of(kind.object.get());
    for (const IID* const iid :
         {&IID_IUnknown, &kind.own, &IID_IDispatch, &IID_NULL}) {
      EXPECT_EQ(kind.object->QueryInterface(*iid, nullptr), E_INVALIDARG);
      EXPECT_EQ(dispatch->QueryInterface(*iid, nullptr), E_INVALIDARG);
    }
    EXPECT_EQ(references_of(kind.object.get()), 2U) << kind.name;
  }
}

TEST(ComponentObject, CountsReferencesThroughEitherInterface) {
  for (const Kind& kind : kinds()) {
    auto dispatch = dispatch_of(kind.object.get());
    EXPECT_EQ(kind.object->AddRef(), 3U) << kind.name;
    EXPECT_EQ(dispatch->AddRef(), 4U) << kind.name;
    EXPECT_EQ(kind.object->Release(), 3U) << kind.name;
    EXPECT_EQ(dispatch->Release(), 2U) << kind.name;
    EXPECT_EQ(dispatch.detach()->Release(), 1U) << kind.name;
  }
}

TEST(ComponentObject, TheLastReleaseReportsZeroAndDestroysIt) {
  for (const bool through_dispatch : {false, true}) {
    auto recordset = standalone_recordset();
    auto dispatch = dispatch_of(recordset.get());
    if (through_dispatch) {
      EXPECT_EQ(recordset.detach()->Release(), 1U);
      EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
      EXPECT_EQ(dispatch.detach()->Release(), 0U);
    } else {
      EXPECT_EQ(dispatch.detach()->Release(), 1U);
      EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
      EXPECT_EQ(recordset.detach()->Release(), 0U);
    }
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
  }
}

TEST(ComponentObject, FieldsHoldOneReferenceOnTheirRecordset) {
  const auto recordset = standalone_recordset();
  {
    const auto fields = fields_of(recordset.get());
    EXPECT_EQ(references_of(recordset.get()), 2U);
    const auto others = fields_of(recordset.get());
    EXPECT_EQ(references_of(recordset.get()), 3U);
    EXPECT_EQ(references_of(fields.get()), 1U);
  }
  EXPECT_EQ(references_of(recordset.get()), 1U);
}

// ---------------------------------------------------------------------------
// The standalone recordset
//
// Open, without columns and rows. Each expectation holds for both roads: the
// operation itself, and the member of the same name.
// ---------------------------------------------------------------------------

/// A call without arguments by member id, and what it must answer.
using component::expect_exception;
using component::get;
using component::method;

void expect_number(IDispatch* object, DISPID member, std::int64_t number) {
  const component::Answer answer = get(object, member);
  EXPECT_EQ(answer.result, S_OK) << member;
  EXPECT_EQ(answer.value.vt, VT_I4) << member;
  EXPECT_EQ(answer.value.lVal, number) << member;
}

void expect_truth(IDispatch* object, DISPID member, VARIANT_BOOL truth) {
  const component::Answer answer = get(object, member);
  EXPECT_EQ(answer.result, S_OK) << member;
  EXPECT_EQ(answer.value.vt, VT_BOOL) << member;
  EXPECT_EQ(answer.value.boolVal, truth) << member;
}

void expect_open_and_empty(IZIRDBRecordset* recordset) {
  const auto dispatch = dispatch_of(recordset);
  long state = 77;
  EXPECT_EQ(recordset->get_State(&state), S_OK);
  EXPECT_EQ(state, ZIRDB_STATE_OPEN);
  expect_number(dispatch.get(), DISPID_ZIRDB_RECORDSET_STATE, 1);

  VARIANT_BOOL flag = 77;
  EXPECT_EQ(recordset->get_BOF(&flag), S_OK);
  EXPECT_EQ(flag, VARIANT_TRUE);
  flag = 77;
  EXPECT_EQ(recordset->get_EOF(&flag), S_OK);
  EXPECT_EQ(flag, VARIANT_TRUE);
  expect_truth(dispatch.get(), DISPID_ZIRDB_RECORDSET_BOF, VARIANT_TRUE);
  expect_truth(dispatch.get(), DISPID_ZIRDB_RECORDSET_EOF, VARIANT_TRUE);

  long count = 77;
  EXPECT_EQ(recordset->get_RecordCount(&count), S_OK);
  EXPECT_EQ(count, -1);
  expect_number(dispatch.get(), DISPID_ZIRDB_RECORDSET_RECORDCOUNT, -1);
}

TEST(StandaloneRecordset, IsOpenAndEmpty) {
  const auto recordset = standalone_recordset();
  expect_open_and_empty(recordset.get());
}

/// A move, as an operation and as a member.
struct Move {
  const char* name;
  HRESULT (IZIRDBRecordset::*operation)();
  DISPID member;
  HRESULT code;
  const wchar_t* text;
};

constexpr Move kMoves[] = {
    {"MoveFirst", &IZIRDBRecordset::MoveFirst, DISPID_ZIRDB_RECORDSET_MOVEFIRST,
     component::kNoCurrentRecordCode, component::kNoCurrentRecordText},
    {"MoveLast", &IZIRDBRecordset::MoveLast, DISPID_ZIRDB_RECORDSET_MOVELAST,
     component::kNotBackwardCode, component::kNotBackwardText},
    {"MovePrevious", &IZIRDBRecordset::MovePrevious,
     DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, component::kNotInThisContextCode,
     component::kNotInThisContextText},
    {"MoveNext", &IZIRDBRecordset::MoveNext, DISPID_ZIRDB_RECORDSET_MOVENEXT,
     component::kNoCurrentRecordCode, component::kNoCurrentRecordText},
};

TEST(StandaloneRecordset, MovesFailAndLeaveItAsItIs) {
  for (const Move& move : kMoves) {
    SCOPED_TRACE(move.name);
    const auto recordset = standalone_recordset();
    EXPECT_EQ((recordset.get()->*move.operation)(), move.code);
    expect_open_and_empty(recordset.get());
    expect_exception(method(dispatch_of(recordset.get()).get(), move.member),
                     move.code, kRecordsetSource, move.text);
    expect_open_and_empty(recordset.get());
  }
}

TEST(StandaloneRecordset, ItsFieldsAreEmpty) {
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  long count = 77;
  EXPECT_EQ(fields->get_Count(&count), S_OK);
  EXPECT_EQ(count, 0);
  expect_number(dispatch_of(fields.get()).get(), DISPID_ZIRDB_FIELDS_COUNT, 0);
}

TEST(StandaloneRecordset, ItsFieldsHaveNoItem) {
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  const auto dispatch = dispatch_of(fields.get());
  const _variant_t indices[] = {
      0, 1, -1, L"", L"id", L"0", _variant_t(), true, 0.0, values::kSmallest};
  for (const _variant_t& index : indices) {
    EXPECT_EQ(component::received<IZIRDBField>([&](IZIRDBField** out) {
                return fields->Item(index, out);
              }).first,
              component::kNotFoundCode)
        << index.vt;
    expect_exception(method(dispatch.get(), DISPID_ZIRDB_FIELDS_ITEM, {index}),
                     component::kNotFoundCode, kRecordsetSource,
                     component::kNotFoundText);
  }
}

TEST(StandaloneRecordset, ItsFieldsAreNotEnumerated) {
  const auto recordset = standalone_recordset();
  const auto dispatch = dispatch_of(fields_of(recordset.get()).get());
  expect_exception(method(dispatch.get(), DISPID_NEWENUM),
                   component::kNoCurrentRecordCode, kRecordsetSource,
                   component::kNoCurrentRecordText);
  expect_exception(get(dispatch.get(), DISPID_NEWENUM),
                   component::kNoCurrentRecordCode, kRecordsetSource,
                   component::kNoCurrentRecordText);
}

TEST(StandaloneRecordset, EachAccessMakesNewFields) {
  const auto recordset = standalone_recordset();
  const auto first = fields_of(recordset.get());
  const auto second = fields_of(recordset.get());
  EXPECT_NE(first.get(), second.get());
}

TEST(StandaloneRecordset, ForEachOverNoRowsCallsNobodyAndCloses) {
  const auto recordset = standalone_recordset();
  objects::Dispatch callback;
  const component::Answer answer =
      method(dispatch_of(recordset.get()).get(), DISPID_ZIRDB_RECORDSET_FOREACH,
             {static_cast<IDispatch*>(&callback)});
  EXPECT_EQ(answer.result, S_OK);
  EXPECT_EQ(answer.value.vt, VT_EMPTY);
  EXPECT_EQ(callback.invocations(), 0);
  EXPECT_EQ(callback.references(), 1U);
  long state = 77;
  EXPECT_EQ(recordset->get_State(&state), S_OK);
  EXPECT_EQ(state, ZIRDB_STATE_CLOSED);
}

TEST(StandaloneRecordset, OutPointersAreNeeded) {
  const auto recordset = standalone_recordset();
  const auto fields = fields_of(recordset.get());
  const auto expect_needed = [&] {
    EXPECT_EQ(recordset->get_Fields(nullptr), E_INVALIDARG);
    EXPECT_EQ(recordset->get_State(nullptr), E_INVALIDARG);
    EXPECT_EQ(recordset->get_EOF(nullptr), E_INVALIDARG);
    EXPECT_EQ(recordset->get_BOF(nullptr), E_INVALIDARG);
    EXPECT_EQ(recordset->get_RecordCount(nullptr), E_INVALIDARG);
    EXPECT_EQ(fields->get_Count(nullptr), E_INVALIDARG);
    EXPECT_EQ(fields->Item(_variant_t(0), nullptr), E_INVALIDARG);
  };
  expect_needed();
  EXPECT_EQ(recordset->Close(), S_OK);
  expect_needed();
}

/// A recordset that closed itself, by one road or the other.
InterfacePtr<IZIRDBRecordset> closed_recordset(bool late_bound) {
  auto recordset = standalone_recordset();
  if (late_bound) {
    const component::Answer answer = method(dispatch_of(recordset.get()).get(),
                                            DISPID_ZIRDB_RECORDSET_CLOSE);
    EXPECT_EQ(answer.result, S_OK);
    EXPECT_EQ(answer.value.vt, VT_EMPTY);
  } else {
    EXPECT_EQ(recordset->Close(), S_OK);
  }
  return recordset;
}

TEST(ClosedRecordset, SaysSo) {
  for (const bool late_bound : {false, true}) {
    const auto recordset = closed_recordset(late_bound);
    long state = 77;
    EXPECT_EQ(recordset->get_State(&state), S_OK);
    EXPECT_EQ(state, ZIRDB_STATE_CLOSED);
    expect_number(dispatch_of(recordset.get()).get(),
                  DISPID_ZIRDB_RECORDSET_STATE, 0);
  }
}

TEST(ClosedRecordset, RefusesToBeMovedOrClosedAgain) {
  const auto recordset = closed_recordset(false);
  const auto dispatch = dispatch_of(recordset.get());
  EXPECT_EQ(recordset->Close(), component::kClosedCode);
  expect_exception(method(dispatch.get(), DISPID_ZIRDB_RECORDSET_CLOSE),
                   component::kClosedCode, kRecordsetSource,
                   component::kClosedText);
  for (const Move& move : kMoves) {
    SCOPED_TRACE(move.name);
    EXPECT_EQ((recordset.get()->*move.operation)(), component::kClosedCode);
    expect_exception(method(dispatch.get(), move.member),
                     component::kClosedCode, kRecordsetSource,
                     component::kClosedText);
  }
}

TEST(ClosedRecordset, HasNoPositionAndNoCount) {
  const auto recordset = closed_recordset(false);
  const auto dispatch = dispatch_of(recordset.get());
  VARIANT_BOOL flag = 77;
  long count = 77;
  EXPECT_EQ(recordset->get_EOF(&flag), component::kClosedCode);
  EXPECT_EQ(recordset->get_BOF(&flag), component::kClosedCode);
  EXPECT_EQ(recordset->get_RecordCount(&count), component::kClosedCode);
  for (const DISPID member :
       {DISPID_ZIRDB_RECORDSET_EOF, DISPID_ZIRDB_RECORDSET_BOF,
        DISPID_ZIRDB_RECORDSET_RECORDCOUNT}) {
    expect_exception(get(dispatch.get(), member), component::kClosedCode,
                     kRecordsetSource, component::kClosedText);
  }
}

TEST(ClosedRecordset, RefusesForEachWithoutACall) {
  const auto recordset = closed_recordset(false);
  objects::Dispatch callback;
  expect_exception(
      method(dispatch_of(recordset.get()).get(), DISPID_ZIRDB_RECORDSET_FOREACH,
             {static_cast<IDispatch*>(&callback)}),
      component::kClosedCode, kRecordsetSource, component::kClosedText);
  EXPECT_EQ(callback.invocations(), 0);
  EXPECT_EQ(callback.references(), 1U);
}

// Fields that were taken before, and those that are taken now.
TEST(ClosedRecordset, ItsFieldsHaveACountAndNothingElse) {
  const auto recordset = standalone_recordset();
  const auto before = fields_of(recordset.get());
  EXPECT_EQ(recordset->Close(), S_OK);
  const auto after = fields_of(recordset.get());
  for (IZIRDBFields* const fields : {before.get(), after.get()}) {
    const auto dispatch = dispatch_of(fields);
    long count = 77;
    EXPECT_EQ(fields->get_Count(&count), S_OK);
    EXPECT_EQ(count, 0);
    expect_number(dispatch.get(), DISPID_ZIRDB_FIELDS_COUNT, 0);
    EXPECT_EQ(component::received<IZIRDBField>([&](IZIRDBField** out) {
                return fields->Item(_variant_t(0), out);
              }).first,
              component::kClosedCode);
    expect_exception(method(dispatch.get(), DISPID_ZIRDB_FIELDS_ITEM, {0}),
                     component::kClosedCode, kRecordsetSource,
                     component::kClosedText);
    expect_exception(method(dispatch.get(), DISPID_NEWENUM),
                     component::kClosedCode, kRecordsetSource,
                     component::kClosedText);
  }
}

TEST(ClosedRecordset, ItsFieldsAreStillHandedOutLateBound) {
  const auto recordset = closed_recordset(false);
  for (const DISPID member : {DISPID_VALUE, DISPID{1}}) {
    const component::Answer answer =
        get(dispatch_of(recordset.get()).get(), member);
    EXPECT_EQ(answer.result, S_OK);
    ASSERT_EQ(answer.value.vt, VT_DISPATCH);
    EXPECT_TRUE(query<IZIRDBFields>(answer.value.pdispVal, IID_IZIRDBFields));
  }
}

}  // namespace
