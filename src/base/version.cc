#include "base/version.h"

namespace kestro::zqp::base {

const std::string& GetVersion() {
  static const std::string version = KZM_VERSION;
  return version;
}

}  // namespace kestro::zqp::base
