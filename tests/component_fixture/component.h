// SPDX-License-Identifier: MIT
//
// What the component libraries of the activation tests have in common: each of
// them is a DllGetClassObject of its own over the record, the factory and the
// object of this header. A test finds the record through component_log().
//
// Nothing here allocates but the object itself, so that a test can count and
// fail what the runtime allocates around it.

#ifndef ZIRDB_TESTS_COMPONENT_FIXTURE_COMPONENT_H
#define ZIRDB_TESTS_COMPONENT_FIXTURE_COMPONENT_H

#include <cstddef>
#include <cwchar>
#include <new>

#include "zir.h"

#define COMPONENT_EXPORT extern "C" __attribute__((visibility("default")))

namespace component {

constexpr std::size_t kLongestName = 400;

/// How a library was called, and how it is to answer.
struct Log {
  // DllGetClassObject.
  int asked = 0;
  CLSID clsid{};
  IID factory_iid{};
  bool named = false;  ///< the out-pointer held something on entry
  wchar_t name[kLongestName] = {};

  // The factory.
  int factory_queries = 0;
  int factory_add_refs = 0;
  int factory_releases = 0;
  int created = 0;
  int releases_when_created = 0;
  IUnknown* outer = nullptr;
  IID object_iid{};
  void** slot = nullptr;  ///< where the object was to be stored

  int live_objects = 0;

  // Answers.
  HRESULT class_answer = S_OK;
  HRESULT create_answer = S_OK;
};

inline Log g_log;

/// Counted, and logs its end.
class Object final : public IUnknown {
 public:
  Object() { ++g_log.live_objects; }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid != IID_IUnknown) return E_NOINTERFACE;
    AddRef();
    *object = static_cast<IUnknown*>(this);
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override {
    const std::uint32_t left = --references_;
    if (left == 0) delete this;
    return left;
  }

 private:
  ~Object() { --g_log.live_objects; }

  std::uint32_t references_ = 1;
};

/// Logs, and makes objects unless told to refuse. There is one per library and
/// it lives for good: calls after its last Release are logged, not fatal.
class Factory final : public IClassFactory {
 public:
  HRESULT QueryInterface(REFIID, void** object) override {
    ++g_log.factory_queries;
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override {
    ++g_log.factory_add_refs;
    return 2;
  }
  std::uint32_t Release() override {
    ++g_log.factory_releases;
    return 0;
  }
  HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** object) override {
    ++g_log.created;
    g_log.releases_when_created = g_log.factory_releases;
    g_log.outer = outer;
    g_log.object_iid = riid;
    g_log.slot = object;
    if (FAILED(g_log.create_answer)) return g_log.create_answer;
    auto* const made = new (std::nothrow) Object;
    if (made == nullptr) return E_OUTOFMEMORY;
    *object = static_cast<IUnknown*>(made);
    return g_log.create_answer;
  }
  HRESULT LockServer(BOOL) override { return E_NOTIMPL; }
};

inline Factory g_factory;

/// Notes what DllGetClassObject was asked, with the text that the out-pointer
/// holds. Only with CLSID_NULL is it a text.
inline void note_question(REFCLSID clsid, REFIID riid, void* const* object) {
  ++g_log.asked;
  g_log.clsid = clsid;
  g_log.factory_iid = riid;
  g_log.named = *object != nullptr;
  g_log.name[0] = L'\0';
  if (g_log.named && clsid == CLSID_NULL) {
    std::wcsncpy(g_log.name, static_cast<const wchar_t*>(*object),
                 kLongestName - 1);
  }
}

}  // namespace component

/// The record of the library it is asked of.
COMPONENT_EXPORT component::Log* component_log();

/// As the runtime calls it.
COMPONENT_EXPORT HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid,
                                           void** object);

#endif  // ZIRDB_TESTS_COMPONENT_FIXTURE_COMPONENT_H
