// Tract files for other tools: MRtrix .tck (world millimetres) and TrackVis .trk (voxel
// millimetres with the voxel-to-RAS matrix in the header). Every selected fiber is
// written end to end through its seed, as in the tracking dump.
//
// Our node coordinates put voxel (i, j, k) over [i, i+1): its centre is i + 0.5. NIfTI
// matrices and MRtrix address voxel centres by whole indices, so x - 0.5 goes through the
// matrix; TrackVis voxel millimetres start at the voxel corner, so x * voxel size.
#pragma once

#include "fiber/trakline.h"
#include "io/nifti_file.h"

// 0, or -1 with an "Err: " line. Only pairs whose selection word is nonzero are written.
int WriteTckFile(const PcdFibeTrakBuffer* buffer, const PcdWorldGeometry* geometry,
                 const char* fileName);
int WriteTrkFile(const PcdFibeTrakBuffer* buffer, const PcdWorldGeometry* geometry,
                 const PcdIntSize4D* size, const char* fileName);
