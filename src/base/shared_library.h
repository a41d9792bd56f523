// Functions of a library loaded at run time with dlopen.
#pragma once

#include <dlfcn.h>

#include <string>

namespace kestro::zqp::base {

// Resolves symbol in handle into out, typed as the caller declares it. False,
// with dlerror's text (or "symbol is null") in why, when the library lacks it;
// out is then left as it was.
template <typename Function>
bool ResolveSymbol(void* handle, const char* symbol, Function& out, std::string& why) {
  dlerror();
  void* address = dlsym(handle, symbol);
  if (address == nullptr) {
    const char* error = dlerror();
    why = error != nullptr ? error : "symbol is null";
    return false;
  }
  out = reinterpret_cast<Function>(address);
  return true;
}

}  // namespace kestro::zqp::base
