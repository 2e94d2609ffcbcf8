// The eight-lane QL iteration, built for AVX2 (see eigen_lanes.h); called only where the
// processor has it.
#include "dti/eigen_lanes.h"

#if defined(__AVX2__)
void PCDdti_TqliEightLanes(PcdEigenLanes* systems, int used) {
  TqliLanesOfArrays<__m256, 8>(systems, 0, used);
}
#elif defined(__SSE2__)
void PCDdti_TqliEightLanes(PcdEigenLanes* systems, int used) {
  // without AVX2 in this build: two rounds of four
  TqliLanesOfArrays<__m128, 4>(systems, 0, used < 4 ? used : 4);
  if (used > 4) TqliLanesOfArrays<__m128, 4>(systems, 4, used - 4);
}
#endif
