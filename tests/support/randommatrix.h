// Matrices of random entries for the arithmetic tests that compare paired and scalar products.
#pragma once

#include <random>

#include "tarni/math.h"

namespace tarni::testing {

// Offset and axes uniform in [-3, 3).
inline Matrix RandomMatrix(std::mt19937_64& random) {
  std::uniform_real_distribution<double> value(-3.0, 3.0);
  Matrix m;
  for (Vector* v : {&m.off, &m.v1, &m.v2, &m.v3})
    *v = {value(random), value(random), value(random)};
  return m;
}

}  // namespace tarni::testing
