#include "base/version.h"

namespace kestro::zqp {

const std::string& GetVersion() {
  static const std::string version = KZM_VERSION;
  return version;
}

}  // namespace kestro::zqp
