// The program's version, as -V and the report's title print it.
#pragma once

#include <string>

namespace kestro::zqp::base {

// "2.2.4", built on first use.
const std::string& GetVersion();

}  // namespace kestro::zqp::base
