// Small helpers the matrix files share (not part of the interface).
#pragma once

#include "vol/numerical.h"

namespace pcd_numerical_detail {

inline bool is_usable(const PcdMatrix* a) {
  return a != nullptr && a->m != nullptr && a->rows > 0 && a->cols > 0;
}

inline bool is_usable(const PcdVector* x) { return x != nullptr && x->data != nullptr && x->n > 0; }

}  // namespace pcd_numerical_detail
