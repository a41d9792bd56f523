#include "app/http_library.h"

#include <dlfcn.h>

#include <mutex>

namespace kestro::zqp::monitor {
namespace {

#define KZM_HTTP_SYMBOL(field, name) \
  { reinterpret_cast<void**>(&library.field), #name }

bool Load(HttpLibrary& library, std::string& error) {
  dlerror();
  // Never closed: the server's thread and responses may run until exit.
  void* handle = dlopen(kHttpLibrary, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    error = why != nullptr ? why : std::string(kHttpLibrary) + ": cannot be loaded";
    return false;
  }
  const struct {
    void** slot;
    const char* name;
  } symbols[] = {
      KZM_HTTP_SYMBOL(start_daemon, MHD_start_daemon),
      KZM_HTTP_SYMBOL(stop_daemon, MHD_stop_daemon),
      KZM_HTTP_SYMBOL(lookup_connection_value, MHD_lookup_connection_value),
      KZM_HTTP_SYMBOL(create_response, MHD_create_response_from_buffer_with_free_callback_cls),
      KZM_HTTP_SYMBOL(add_response_header, MHD_add_response_header),
      KZM_HTTP_SYMBOL(queue_response, MHD_queue_response),
      KZM_HTTP_SYMBOL(destroy_response, MHD_destroy_response),
  };
  static_assert(sizeof symbols / sizeof symbols[0] == sizeof(HttpLibrary) / sizeof(void*),
                "every function of HttpLibrary is resolved");
  for (const auto& symbol : symbols) {
    *symbol.slot = dlsym(handle, symbol.name);
    if (*symbol.slot == nullptr) {
      error = std::string(kHttpLibrary) + ": no function " + symbol.name;
      return false;
    }
  }
  return true;
}

#undef KZM_HTTP_SYMBOL

}  // namespace

const HttpLibrary* LoadHttpLibrary(std::string& error) {
  static std::mutex mutex;
  static HttpLibrary library;
  static bool loaded = false;
  const std::lock_guard<std::mutex> hold(mutex);
  if (!loaded) loaded = Load(library, error);
  return loaded ? &library : nullptr;
}

}  // namespace kestro::zqp::monitor
