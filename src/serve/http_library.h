// libmicrohttpd, loaded at run time by the recorder's --listen only.
//
// Debian builds the library against GnuTLS: linking it would load GnuTLS and
// its eight dependencies (about 3 MiB resident) into every recorder, also one
// that never listens, and run their initialisers at each start. Loaded on
// demand, a recorder without --listen stays as light as the monitor.
#pragma once

#include <microhttpd.h>

#include <string>

namespace kestro::zqp::serve {

// The library's soname on Debian 12 (package libmicrohttpd12), both arches.
inline constexpr char kHttpLibrary[] = "libmicrohttpd.so.12";

// The functions the server calls, resolved by name from kHttpLibrary. The
// packaging reads their names ("MHD_...") from http_library.cc to compute the
// library version the package recommends.
struct HttpLibrary {
  decltype(&MHD_start_daemon) start_daemon;
  decltype(&MHD_stop_daemon) stop_daemon;
  decltype(&MHD_get_daemon_info) get_daemon_info;
  decltype(&MHD_get_timeout) get_timeout;
  decltype(&MHD_run) run;
  decltype(&MHD_get_connection_info) get_connection_info;
  decltype(&MHD_lookup_connection_value) lookup_connection_value;
  decltype(&MHD_create_response_from_buffer_with_free_callback_cls) create_response;
  decltype(&MHD_add_response_header) add_response_header;
  decltype(&MHD_queue_response) queue_response;
  decltype(&MHD_destroy_response) destroy_response;
};

// Loads the library at the first call and keeps it loaded; later calls give
// the first one's outcome. Null, with why in error ("libmicrohttpd.so.12:
// cannot open shared object file: ..."), when the library or one of its
// functions is missing.
const HttpLibrary* LoadHttpLibrary(std::string& error);

}  // namespace kestro::zqp::serve
