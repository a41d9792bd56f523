#include "base/version.h"

#include <sstream>

namespace kestro::zqp {

const std::string& GetVersion() {
  static const std::string version = [] {
    std::ostringstream out;
    out << 2u << '.' << 2u << '.' << 4u;
    return out.str();
  }();
  return version;
}

}  // namespace kestro::zqp
