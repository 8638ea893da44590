// SPDX-License-Identifier: MIT
//
// The surroundings of an activation: a "REGISTRY" folder made by the test, the
// environment variable, the working folder, and the component libraries that
// were built for the tests.

#ifndef ZIRDB_TESTS_COMPONENT_FIXTURE_REGISTRY_H
#define ZIRDB_TESTS_COMPONENT_FIXTURE_REGISTRY_H

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

#include "component_fixture/component.h"
#include "zir.h"

namespace registry {

/// The file of a component library: "complete", "failing", ...
inline std::string component_file(const std::string& kind) {
  return std::string(COMPONENT_FOLDER "/component_") + kind + ".so";
}

/// What a library has noted. The library is loaded by this call if need be, and
/// is the one that activation loads through links.
inline component::Log& log_of_file(const std::string& file) {
  void* const library = dlopen(file.c_str(), RTLD_LAZY);
  if (library == nullptr) throw std::runtime_error("cannot load " + file);
  void* const symbol = dlsym(library, "component_log");
  if (symbol == nullptr) throw std::runtime_error("no log in " + file);
  return *reinterpret_cast<component::Log* (*)()>(symbol)();
}
inline component::Log& log_of(const std::string& kind) {
  return log_of_file(component_file(kind));
}

/// Whether a file is loaded as a library.
inline bool is_loaded(const std::string& file) {
  return dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD) != nullptr;
}

/// A folder that goes away with its content.
class Folder {
 public:
  Folder() {
    path_ = std::filesystem::temp_directory_path() / "zirdb-registry.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::runtime_error("no temporary folder " + path_);
    }
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  /// The path of something in it.
  std::string in(const std::string& name) const { return path_ + "/" + name; }

  /// A component library under a name of the test's choice.
  void link(const std::string& name, const std::string& kind) const {
    std::filesystem::create_symlink(component_file(kind), in(name));
  }
  void copy(const std::string& name, const std::string& kind) const {
    std::filesystem::copy_file(component_file(kind), in(name));
  }
  void write(const std::string& name, const std::string& content) const {
    std::ofstream file(in(name), std::ios::binary);
    file << content;
    if (!file) throw std::runtime_error("cannot write " + in(name));
  }
  void folder(const std::string& name) const {
    std::filesystem::create_directories(in(name));
  }

 private:
  std::string path_;
};

/// Sets, or without a value unsets, an environment variable while it lives.
class Environment {
 public:
  Environment(const char* name, const std::optional<std::string>& value)
      : name_(name) {
    if (const char* const before = std::getenv(name)) before_ = before;
    set(value);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;
  ~Environment() { set(before_); }

  void set(const std::optional<std::string>& value) const {
    if (value) {
      setenv(name_, value->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> before_;
};

/// Makes a folder the working one while it lives.
class WorkingFolder {
 public:
  explicit WorkingFolder(const std::string& path)
      : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  WorkingFolder(const WorkingFolder&) = delete;
  WorkingFolder& operator=(const WorkingFolder&) = delete;
  ~WorkingFolder() {
    std::error_code ignored;
    std::filesystem::current_path(before_, ignored);
  }

 private:
  std::filesystem::path before_;
};

/// A link in the folder where the loader looks by itself (LD_LIBRARY_PATH),
/// which the programs share: names are for one test only.
class SearchedLink {
 public:
  SearchedLink(const std::string& name, const std::string& kind)
      : path_(std::string(COMPONENT_SEARCHED_FOLDER "/") + name) {
    const char* const searched = std::getenv("LD_LIBRARY_PATH");
    if (searched == nullptr ||
        std::string(searched).find(COMPONENT_SEARCHED_FOLDER) ==
            std::string::npos) {
      throw std::runtime_error(
          "run this with LD_LIBRARY_PATH=" COMPONENT_SEARCHED_FOLDER
          ", as CTest does");
    }
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
    std::filesystem::create_symlink(component_file(kind), path_);
  }
  SearchedLink(const SearchedLink&) = delete;
  SearchedLink& operator=(const SearchedLink&) = delete;
  ~SearchedLink() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }

 private:
  std::string path_;
};

/// The object that an activation stored, released with it.
class Created {
 public:
  Created() = default;
  Created(const Created&) = delete;
  Created& operator=(const Created&) = delete;
  ~Created() {
    if (object_ != unset() && object_ != nullptr) {
      static_cast<IUnknown*>(object_)->Release();
    }
  }

  void** out() { return &object_; }
  /// Nothing has been stored, not even NULL.
  bool untouched() const { return object_ == unset(); }
  bool made() const { return !untouched() && object_ != nullptr; }

 private:
  // An address that no object has.
  static void* unset() {
    static char mark = 0;
    return &mark;
  }

  void* object_ = unset();
};

}  // namespace registry

#endif  // ZIRDB_TESTS_COMPONENT_FIXTURE_REGISTRY_H
