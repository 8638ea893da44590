// SPDX-License-Identifier: MIT
//
// Finding the library that this program runs with, and its registry folder.

#include "library.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "zir.h"

std::string file_of(const void* address) {
  Dl_info info = {};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "";
  struct Free {
    void operator()(char* text) const { std::free(text); }
  };
  const std::unique_ptr<char, Free> resolved(realpath(info.dli_fname, nullptr));
  return resolved ? resolved.get() : info.dli_fname;
}

std::string library_file() {
  return file_of(reinterpret_cast<const void*>(&CoCreateInstanceByName));
}

std::string folder_of(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

Registry use_default_registry() {
  // NOLINTBEGIN(concurrency-mt-unsafe): there are no threads yet
  if (std::getenv("REGISTRY") != nullptr) return Registry::kFromEnvironment;
  const std::string folder = folder_of(library_file());
  // As installed, and as built.
  for (const char* const name : {"/zirdb/registry", "/registry"}) {
    struct stat status = {};
    if (stat((folder + name).c_str(), &status) == 0 &&
        S_ISDIR(status.st_mode)) {
      setenv("REGISTRY", (folder + name).c_str(), 0);
      return Registry::kByDefault;
    }
  }
  // NOLINTEND(concurrency-mt-unsafe)
  return Registry::kNone;
}
