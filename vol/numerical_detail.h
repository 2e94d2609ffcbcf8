// Small helpers the matrix files share (not part of the interface).
#pragma once

struct PcdMatrix;
struct PcdVector;

namespace pcd_numerical_detail {

// A record with storage and a positive size.
bool is_usable(const PcdMatrix* a);
bool is_usable(const PcdVector* x);

}  // namespace pcd_numerical_detail
