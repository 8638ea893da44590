// SPDX-License-Identifier: MIT
//
// Connections and parameters that are made by hand, as programs in C and in
// script languages make them: a pointer to a table of functions, and no more.
// In front of the table lies nothing that may be read.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/commands.h"
#include "support/component.h"
#include "support/component_host.h"
#include "support/connections.h"
#include "support/parameters.h"
#include "support/values.h"

namespace {

using namespace commands;

using Function = void (*)();

/// The beginning of a page behind one that nobody may touch.
class Table {
 public:
  Table(std::initializer_list<Function> functions)
      : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
        pages_(mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    if (pages_ == MAP_FAILED || mprotect(pages_, page_, PROT_NONE) != 0) {
      throw std::runtime_error("no pages");
    }
    std::copy(functions.begin(), functions.end(), front());
  }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  ~Table() { munmap(pages_, 2 * page_); }

  Function* front() const {
    return reinterpret_cast<Function*>(static_cast<char*>(pages_) + page_);
  }

 private:
  std::size_t page_;
  void* pages_;
};

template <class Result, class... Arguments>
Function slot(Result (*function)(Arguments...)) {
  return reinterpret_cast<Function>(function);
}

/// What all of them begin with.
struct ByHand {
  Function* table;
  IID iid;
  std::uint32_t references = 1;
  std::vector<std::wstring> executed = {};
  long options = 0;
  IDispatch* dispatch() { return reinterpret_cast<IDispatch*>(this); }
};

HRESULT query_interface(ByHand* self, const IID* riid, void** object) {
  *object = nullptr;
  if (*riid != IID_IUnknown && *riid != IID_IDispatch && *riid != self->iid) {
    return E_NOINTERFACE;
  }
  ++self->references;
  *object = self;
  return S_OK;
}
std::uint32_t add_ref(ByHand* self) { return ++self->references; }
std::uint32_t release(ByHand* self) { return --self->references; }

HRESULT execute_text(ByHand* self, BSTR text, VARIANT* affected, long options,
                     IZIRDBRecordset** recordset) {
  self->executed.emplace_back(text, SysStringLen(text));
  self->options = options;
  if (affected != nullptr && affected->vt == (VT_BYREF | VT_VARIANT)) {
    affected->pvarVal->vt = VT_I8;
    affected->pvarVal->llVal = 3;
  }
  *recordset = component::standalone_recordset().detach();
  return S_OK;
}

HRESULT get_name(ByHand* /*self*/, BSTR* name) {
  *name = SysAllocString(L"by hand");
  return S_OK;
}
HRESULT get_value(ByHand* /*self*/, VARIANT* value) {
  *value = _variant_t(L"its value").Detach();
  return S_OK;
}
HRESULT get_type(ByHand* /*self*/, long* type) {
  *type = ZIRDB_AD_VARWCHAR;
  return S_OK;
}
HRESULT get_direction(ByHand* /*self*/, long* direction) {
  *direction = ZIRDB_AD_PARAM_INPUT_OUTPUT;
  return S_OK;
}
HRESULT get_size(ByHand* /*self*/, long* size) {
  *size = 40;
  return S_OK;
}

class ForeignObjectsMadeByHand : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(connection_.references, 1U);
    EXPECT_EQ(parameter_.references, 1U);
  }

  ByHand& connection() { return connection_; }
  ByHand& parameter() { return parameter_; }
  IZIRDBParameter* parameter_interface() {
    return reinterpret_cast<IZIRDBParameter*>(&parameter_);
  }
  static _variant_t argument(ByHand& object) {
    VARIANT value = values::plain(VT_DISPATCH, 0);
    value.pdispVal = object.dispatch();
    add_ref(&object);
    return values::owned(value);
  }

 private:
  static constexpr Function kUnused = nullptr;
  Table connection_table_{slot(query_interface),
                          slot(add_ref),
                          slot(release),
                          kUnused,
                          kUnused,
                          kUnused,
                          kUnused,
                          kUnused,
                          slot(execute_text)};
  Table parameter_table_{slot(query_interface),
                         slot(add_ref),
                         slot(release),
                         slot(get_name),
                         kUnused,
                         slot(get_value),
                         kUnused,
                         slot(get_type),
                         kUnused,
                         slot(get_direction),
                         kUnused,
                         slot(get_size),
                         kUnused};
  ByHand connection_{connection_table_.front(), IID_IZIRDBConnection};
  ByHand parameter_{parameter_table_.front(), IID_IZIRDBParameter};
};

TEST_F(ForeignObjectsMadeByHand, AConnectionExecutesACommandWithoutParameters) {
  // The library tells its own connections by one that it has made.
  const Connection own = component::connection();
  for (const bool late : {false, true}) {
    const Command made = component::command();
    _bstr_t text(L"select");
    EXPECT_EQ(made->put_CommandText(text.m_s), S_OK);
    if (late) {
      EXPECT_EQ(component::put(dispatch_of(made.get()).get(),
                               DISPID_ZIRDB_COMMAND_ACTIVECONNECTION,
                               argument(connection()))
                    .result,
                S_OK);
    } else {
      EXPECT_EQ(made->putref_ActiveConnection(connection().dispatch()), S_OK);
    }
    for (const Road road : kRoads) {
      connection().executed.clear();
      _variant_t affected;
      VARIANT reference = values::reference_to(&affected);
      const Ran ran = run(road, made, &reference, 7);
      EXPECT_EQ(ran.outcome, kDone);
      EXPECT_EQ(connection().executed, std::vector<std::wstring>{L"select"});
      EXPECT_EQ(connection().options, 7);
      EXPECT_EQ(affected.llVal, 3);
    }
  }
}

TEST_F(ForeignObjectsMadeByHand, AConnectionIsRefusedWithParameters) {
  const Command made = command_over(connection().dispatch(), L"select ?");
  append(made, _variant_t(5));
  for (const Road road : kRoads) EXPECT_EQ(run(road, made).outcome, kForeign);
  EXPECT_TRUE(connection().executed.empty());
}

TEST_F(ForeignObjectsMadeByHand, AParameterIsCopiedIntoTheList) {
  const Command made = component::command();
  const Parameter own = append(made, _variant_t(5));
  EXPECT_EQ(parameters_of(made)->Append(parameter_interface()), S_OK);
  EXPECT_EQ(
      component::method(dispatch_of(parameters_of(made).get()).get(),
                        DISPID_ZIRDB_PARAMETERS_APPEND, {argument(parameter())})
          .result,
      S_OK);
  const parameters::Record copy = {
      L"by hand", ZIRDB_AD_VARWCHAR, ZIRDB_AD_PARAM_INPUT_OUTPUT, 40,
      parameters::describe(_variant_t(L"its value"))};
  EXPECT_EQ(parameters::records_of(parameters_of(made)),
            std::vector<parameters::Record>(
                {parameters::record_of(own.get()), copy, copy}));
}

}  // namespace
