#include "monitors/value_readers.h"

#include <cstdio>

namespace kestro::zqp::monitors {

long ReadSecondToken(float& value, const char* text) {
  return std::sscanf(text, "%*s %f %*s", &value);
}

long ReadPlainNumber(float& value, const char* text) {
  return std::sscanf(text, "%f", &value);
}

}  // namespace kestro::zqp::monitors
