#include "serve/http_library.h"

#include <dlfcn.h>

#include <optional>

#include "base/shared_library.h"

namespace kestro::zqp::serve {
namespace {

std::optional<HttpLibrary> Open(std::string& error) {
  void* handle = dlopen(kHttpLibrary, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    error = why != nullptr ? why : std::string(kHttpLibrary) + ": cannot be loaded";
    return std::nullopt;
  }
  HttpLibrary library{};
  std::string why;
  // The names are read by scripts/package too, for the version it recommends.
  if (!base::ResolveSymbol(handle, "MHD_start_daemon", library.start_daemon, why) ||
      !base::ResolveSymbol(handle, "MHD_stop_daemon", library.stop_daemon, why) ||
      !base::ResolveSymbol(handle, "MHD_get_daemon_info", library.get_daemon_info, why) ||
      !base::ResolveSymbol(handle, "MHD_get_timeout", library.get_timeout, why) ||
      !base::ResolveSymbol(handle, "MHD_run", library.run, why) ||
      !base::ResolveSymbol(handle, "MHD_get_connection_info", library.get_connection_info, why) ||
      !base::ResolveSymbol(handle, "MHD_lookup_connection_value", library.lookup_connection_value,
                           why) ||
      !base::ResolveSymbol(handle, "MHD_create_response_from_buffer_with_free_callback_cls",
                           library.create_response, why) ||
      !base::ResolveSymbol(handle, "MHD_add_response_header", library.add_response_header, why) ||
      !base::ResolveSymbol(handle, "MHD_queue_response", library.queue_response, why) ||
      !base::ResolveSymbol(handle, "MHD_destroy_response", library.destroy_response, why)) {
    error = why;  // dlerror names the library and the symbol
    dlclose(handle);
    return std::nullopt;
  }
  // Never closed: the server's thread and responses may run until exit.
  return library;
}

}  // namespace

const HttpLibrary* LoadHttpLibrary(std::string& error) {
  static std::string why;
  static const std::optional<HttpLibrary> library = Open(why);
  if (!library) error = why;
  return library ? &*library : nullptr;
}

}  // namespace kestro::zqp::serve
