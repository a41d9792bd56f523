#include "serve/live_page.h"

#include <string>

#include "base/program_name.h"
#include "base/version.h"

// live_page.html's bytes, generated at build time (cmake/embed.cmake).
extern const unsigned char kLivePageHtml[];
extern const unsigned long kLivePageHtmlSize;

namespace kestro::zqp::serve {

std::string_view LivePage() {
  static const std::string page = [] {
    std::string text(reinterpret_cast<const char*>(kLivePageHtml), kLivePageHtmlSize);
    const std::string heading = std::string(base::kRecordProgram) + " " + base::GetVersion();
    for (std::size_t at; (at = text.find("@HEADING@")) != std::string::npos;)
      text.replace(at, 9, heading);
    return text;
  }();
  return page;
}

}  // namespace kestro::zqp::serve
